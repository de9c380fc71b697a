#include "Plugin/installAction/InstallFromUrl.h"

#include <glog/logging.h>

#include "Plugin/installAction/PackageFiles.h"
#include "sign/PackageSign.h"

InstallFromUrl::InstallFromUrl(const std::string& url) : InstallAction("", url, "") {}

ApiErrorCode InstallFromUrl::checkBeforeInstall(const std::string&) {
    return API_SUCCESS;
}

ApiErrorCode InstallFromUrl::getPackage() {
    // A failed download leaves no valid package; the signature check of the
    // payload step then fails on it.
    // Downloaded where only the installer can write: a link planted in the
    // plugin root would otherwise receive the download.
    const std::string staging = PackageFiles::sStagingDir();
    downloadPath_ = staging.empty() ? std::string() : staging + "urlinstall.qpk";
    LOG(ERROR) << "getPackage code " << (downloadPath_.empty() ? API_DOWNLOAD_FAILED : downloadPackage(downloadPath_));
    return readPayload(tmpDir_, false);
}

ApiErrorCode InstallFromUrl::verifySign() {
    return verifySignChecked({packagesign::kSignTypeDeveloper, packagesign::kSignTypeOfficial}, false);
}

std::string InstallFromUrl::statOnceString() {
    return "plugin_install_url";
}
