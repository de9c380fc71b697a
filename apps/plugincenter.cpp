// No input a package or a plugin can supply ends the tool with abort():
// whatever escapes is reported with a message and exit status 1.
#include "Plugin/pluginCenter.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    try {
        return pluginCenterMain(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "plugincenter: " << e.what() << std::endl;
    } catch (...) {
        std::cerr << "plugincenter: unknown error" << std::endl;
    }
    return 1;
}
