#include "Plugin/installAction/InstallFromUrl.h"

#include <glog/logging.h>

#include "Plugin/PluginManager.h"
#include "sign/PackageSign.h"

InstallFromUrl::InstallFromUrl(const std::string& url)
    : InstallAction("", url, ""), downloadPath_(PluginManager::sGetPluginRootPath() + "/urlinstall.qpk") {}

ApiErrorCode InstallFromUrl::checkBeforeInstall(const std::string&) {
    return API_SUCCESS;
}

ApiErrorCode InstallFromUrl::getPackage() {
    // A failed download leaves no valid package; the signature check of the
    // payload step then fails on it.
    LOG(ERROR) << "getPackage code " << downloadPackage(downloadPath_);
    return readPayload(tmpDir_, false);
}

ApiErrorCode InstallFromUrl::verifySign() {
    const ApiErrorCode type = checkSignType({packagesign::kSignTypeDeveloper, packagesign::kSignTypeOfficial});
    return type != API_SUCCESS ? type : verifySignImpl(false);
}

std::string InstallFromUrl::statOnceString() {
    return "plugin_install_url";
}

void InstallFromUrl::cleanPackage() {}

std::vector<std::string> InstallFromUrl::stagedPaths() const {
    std::vector<std::string> paths = InstallAction::stagedPaths();
    paths.push_back(downloadPath_);
    return paths;
}
