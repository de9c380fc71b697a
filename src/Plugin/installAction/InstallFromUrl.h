#pragma once
// A package downloaded from any URL a developer gives.
#include "Plugin/installAction/InstallAction.h"

class InstallFromUrl : public InstallAction {
public:
    explicit InstallFromUrl(const std::string& url);
    ApiErrorCode checkBeforeInstall(const std::string& id) override;
    // Downloads into an unnamed file of the staging folder and verifies it
    // there, then reads the payload's id like a local package's.
    ApiErrorCode getPackage() override;
    ApiErrorCode verifySign() override;
    std::string statOnceString() override;

private:
    std::string downloadPath_;
    std::string tmpDir_;
};
