#include "Plugin/installAction/InstallFromLocal.h"

#include "Plugin/installAction/UpgradeBackup.h"
#include "sign/PackageSign.h"
#include "storage/File.h"

InstallFromLocal::InstallFromLocal(const std::string& path, bool keepPackage)
    : InstallAction("", "", path), keepPackage_(keepPackage) {}

ApiErrorCode InstallFromLocal::checkBeforeInstall(const std::string&) {
    return API_SUCCESS;
}

ApiErrorCode InstallFromLocal::getPackage() {
    return readPayload(tmpDir_, true);
}

ApiErrorCode InstallFromLocal::verifySign() {
    return verifySignChecked({packagesign::kSignTypeDeveloper, packagesign::kSignTypeOfficial}, keepPackage_);
}

std::string InstallFromLocal::statOnceString() {
    return "plugin_install_local";
}

void InstallFromLocal::cleanPackage() {
    InstallAction::cleanPackage();
    if (!keepPackage_) {
        datacenter::File::sDelete(packagePath_);
    }
    // The staging folder goes, but not the backup of an upgrade whose
    // rollback is still pending.
    if (!tmpDir_.empty()) {
        UpgradeBackup::sClearStaging();
    }
}
