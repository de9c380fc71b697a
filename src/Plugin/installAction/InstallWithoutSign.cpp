#include "Plugin/installAction/InstallWithoutSign.h"

InstallWithoutSign::InstallWithoutSign(const std::string& id, const std::string& packagePath)
    : InstallAction(id, "", packagePath) {}

ApiErrorCode InstallWithoutSign::checkBeforeInstall(const std::string&) {
    return API_SUCCESS;
}
ApiErrorCode InstallWithoutSign::getPackage() {
    return API_SUCCESS;
}
ApiErrorCode InstallWithoutSign::verifySign() {
    return API_SUCCESS;
}
std::string InstallWithoutSign::statOnceString() {
    return "plugin_install_local";
}
void InstallWithoutSign::cleanPackage() {}
