#include "Plugin/pluginCenter.h"

int main(int argc, char** argv) {
    return pluginCenterMain(argc, argv);
}
