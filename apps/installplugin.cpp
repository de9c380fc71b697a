#include "Plugin/installPlugin.h"

int main(int argc, char** argv) {
    return installPluginMain(argc, argv);
}
