#include "DataBase/PluginStorageManager.h"

#include "storage/Directory.h"
#include "system/ConfigInfo.h"

const std::string PluginStorageManager::sManifestFileExten = ".manifest";
const std::string PluginStorageManager::sManifestSdkTokenKey = "sdk_token";
const std::string PluginStorageManager::sManifestStatusKey = "status";
const std::string PluginStorageManager::sManifestInstallTimeKey = "install_time";
const std::string PluginStorageManager::sUpdatedFile = "hasUpdated";

std::string PluginStorageManager::sGetManifestRootPath() {
    const std::string root = datacenter::planformetPluginRootPath() + "/app_infos/";
    if (!datacenter::Directory::sIsDirectory(root)) {
        datacenter::Directory::sCreateDirectory(root);
    }
    return root;
}
