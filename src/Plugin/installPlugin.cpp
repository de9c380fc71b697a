#include "Plugin/installPlugin.h"

#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "system/Environment.h"
#include "system/Logging.h"

namespace {

struct InstallOptions {
    std::string path;
    bool keep = false;
    bool update = false;
};

// False on an unknown option.
bool parseOptions(int argc, char** argv, InstallOptions& options) {
    opterr = 0;
    int option;
    while ((option = getopt(argc, argv, "f:uk")) != -1) {
        switch (option) {
            case 'f':
                options.path = optarg;
                break;
            case 'k':
                options.keep = true;
                break;
            case 'u':
                options.update = true;
                break;
            default:
                return false;
        }
    }
    return true;
}

void touchMarkFile() {
    const std::string markFile = PluginStorageManager::sGetManifestRootPath() + PluginStorageManager::sUpdatedFile;
    std::cout << "update mark file " << markFile << std::endl;
    if (FILE* mark = fopen(markFile.c_str(), "a")) {
        fclose(mark);
    }
    chmod(markFile.c_str(), 0777);
}

}  // namespace

int installPluginMain(int argc, char** argv) {
    // Give the services that start with us time to come up. Tests shorten this.
    datacenter::Environment::sSleepMilliseconds(
        datacenter::Environment::sGetMilliseconds("DATACENTER_INSTALLPLUGIN_DELAY_MS", 2000));
    datacenter::Logging::sInit("plugincenter", true);

    InstallOptions options;
    if (!parseOptions(argc, argv, options)) {
        std::cout << "Usage: installplugin -f qpkFile [-u] [-s] " << std::endl;
        return 1;
    }
    const bool keep = options.update ? false : options.keep;
    const ApiErrorCode result = Singleton<PluginManager>::instance()->installFromLocal(options.path, keep);
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
