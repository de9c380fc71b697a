#include "Plugin/installPlugin.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/FirmwareRecheck.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "storage/PluginTree.h"
#include "system/Environment.h"
#include "system/Logging.h"

namespace {

void touchMarkFile() {
    const std::string markFile = PluginStorageManager::sGetManifestRootPath() + PluginStorageManager::sUpdatedFile;
    std::cout << "update mark file " << markFile << std::endl;
    // Created and opened to everyone through the store's own descriptor, never through a planted link.
    datacenter::PluginTree store(PluginStorageManager::sGetManifestRootPath());
    const int mark = store.openFile(PluginStorageManager::sUpdatedFile, O_WRONLY | O_CREAT | O_APPEND, 0777);
    if (mark < 0) {
        LOG(ERROR) << "cannot mark the store updated: " << store.lastError();
        return;
    }
    fchmod(mark, 0777);
    close(mark);
}

}  // namespace

bool parseInstallCommand(int argc, char** argv, InstallCommand& command) {
    // Start a fresh scan so that the parser can run more than once per process.
#ifdef __GLIBC__
    optind = 0;
#else
    optind = 1;
#endif
    opterr = 0;
    bool update = false;
    int option;
    while ((option = getopt(argc, argv, "f:uk")) != -1) {
        switch (option) {
            case 'f':
                command.path = optarg;
                break;
            case 'k':
                command.keep = true;
                break;
            case 'u':
                update = true;
                break;
            default:
                return false;
        }
    }
    // An update never keeps the package, whatever -k says.
    if (update) {
        command.keep = false;
    }
    return true;
}

int installPluginMain(int argc, char** argv) {
    // Give the services that start with us time to come up. Tests shorten this.
    datacenter::Environment::sSleepMilliseconds(
        datacenter::Environment::sGetMilliseconds("DATACENTER_INSTALLPLUGIN_DELAY_MS", 2000));
    datacenter::Logging::sInit("plugincenter", true);

    InstallCommand command;
    if (!parseInstallCommand(argc, argv, command)) {
        std::cout << "Usage: installplugin -f qpkFile [-u] [-s] " << std::endl;
        return 1;
    }
    // The installer is the first to start after a firmware flash: plugins
    // that no longer fit are stopped before anything is installed.
    FirmwareRecheck::sRunIfFirmwareChanged(*Singleton<PluginManager>::instance());
    const ApiErrorCode result = Singleton<PluginManager>::instance()->installFromLocal(command.path, command.keep);
    if (result == API_SUCCESS) {
        LOG(WARNING) << "installplugin succeed!";
        std::cout << "installplugin succeed!" << std::endl;
        touchMarkFile();
        return 0;
    }
    LOG(WARNING) << "installplugin failed. code is " << result;
    std::cout << "installplugin failed. code is " << result << std::endl;
    return 0;
}
