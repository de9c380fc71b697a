#include "Plugin/PluginManager.h"

#include <glog/logging.h>

#include "storage/File.h"

PluginManager::PluginManager() = default;

PluginManager::~PluginManager() = default;

ApiErrorCode PluginManager::installFromLocal(const std::string& path, bool keepPackage) {
    LOG(INFO) << "installFromLocal path:" << path << " keepPackage:" << keepPackage;
    if (path.empty()) {
        LOG(ERROR) << "installFromLocal: package path is empty";
        return API_EMPTY_ARGUMENT;
    }
    if (!datacenter::File::sExists(path)) {
        LOG(ERROR) << "installFromLocal: package " << path << " does not exist";
        return API_PACKAGE_NOT_EXIST;
    }
    // Signature verification and unpacking are not available in this build:
    // the package cannot be obtained.
    LOG(ERROR) << "installFromLocal: no install pipeline to obtain " << path;
    return API_GET_PACKAGE_FAILED;
}
