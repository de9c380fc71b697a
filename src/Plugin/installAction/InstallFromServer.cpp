#include "Plugin/installAction/InstallFromServer.h"

#include <glog/logging.h>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "sign/PackageSign.h"
#include "storage/File.h"

InstallFromServer::InstallFromServer(const std::string& id, const std::string& url) : InstallAction(id, url, "") {}

ApiErrorCode InstallFromServer::checkBeforeInstall(const std::string& id) {
    if (datacenter::File::sExists(Singleton<PluginStorageManager>::instance()->getManifestFilePath(id))) {
        LOG(ERROR) << "install plugin ,plugin already exists , id is " << id;
        return API_ALREADY_INSTALLED;
    }
    return Singleton<PluginManager>::instance()->checkLocalExistBeforeInstall(id);
}

ApiErrorCode InstallFromServer::getPackage() {
    return downloadPackage(PluginManager::sGetQpkLocalPath(pluginId_));
}

ApiErrorCode InstallFromServer::verifySign() {
    const ApiErrorCode type = checkSignType({packagesign::kSignTypeOfficial});
    return type != API_SUCCESS ? type : verifySignImpl(false);
}

std::string InstallFromServer::statOnceString() {
    return "plugin_install_server";
}
