#pragma once
// A newer version of a plugin from the maker's plugin service. Obtained and
// checked like a new installation; only the pre-check differs.
#include "Plugin/installAction/InstallFromServer.h"

class UpgradeFromServer : public InstallFromServer {
public:
    UpgradeFromServer(const std::string& id, const std::string& url);
    // An upgrade of a plugin that is not installed proceeds as a new installation.
    ApiErrorCode checkBeforeInstall(const std::string& id) override;
    std::string statOnceString() override;
};
