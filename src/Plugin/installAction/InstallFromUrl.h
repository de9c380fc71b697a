#pragma once
// A package downloaded from any URL a developer gives.
#include "Plugin/installAction/InstallAction.h"

class InstallFromUrl : public InstallAction {
public:
    explicit InstallFromUrl(const std::string& url);
    ApiErrorCode checkBeforeInstall(const std::string& id) override;
    // Downloads to the staging folder, then reads the payload like a local package.
    ApiErrorCode getPackage() override;
    ApiErrorCode verifySign() override;
    std::string statOnceString() override;
    // The downloaded and verified files stay for the developer to inspect.
    void cleanPackage() override;

private:
    std::string downloadPath_;
    std::string tmpDir_;
};
