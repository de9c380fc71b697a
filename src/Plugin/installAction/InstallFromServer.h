#pragma once
// A new plugin downloaded from the maker's plugin service.
#include "Plugin/installAction/InstallAction.h"

class InstallFromServer : public InstallAction {
public:
    InstallFromServer(const std::string& id, const std::string& url);
    // 2507 when the plugin is installed already.
    ApiErrorCode checkBeforeInstall(const std::string& id) override;
    // Downloads the package into the plugin's data directory.
    ApiErrorCode getPackage() override;
    // Only official packages come from the service.
    ApiErrorCode verifySign() override;
    std::string statOnceString() override;
};
