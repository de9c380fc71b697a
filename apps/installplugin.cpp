// No input a package or a plugin can supply ends the tool with abort():
// whatever escapes is reported with a message and exit status 1.
#include "Plugin/installPlugin.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    try {
        return installPluginMain(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "installplugin: " << e.what() << std::endl;
    } catch (...) {
        std::cerr << "installplugin: unknown error" << std::endl;
    }
    return 1;
}
