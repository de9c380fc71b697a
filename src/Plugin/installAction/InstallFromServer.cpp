#include "Plugin/installAction/InstallFromServer.h"

#include <glog/logging.h>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "Plugin/installAction/PackageFiles.h"
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
    // Downloaded where only the installer can write, so nothing planted in the
    // plugin's own folder is written through and nothing swaps the package.
    const std::string staging = PackageFiles::sStagingDir();
    if (staging.empty()) {
        return API_DOWNLOAD_FAILED;
    }
    return downloadPackage(staging + PluginManager::sDownloadQpkLocalName);
}

ApiErrorCode InstallFromServer::verifySign() {
    return verifySignChecked({packagesign::kSignTypeOfficial}, false);
}

std::string InstallFromServer::statOnceString() {
    return "plugin_install_server";
}
