#pragma once
// A package file already on the router (the command-line installer).
#include "Plugin/installAction/InstallAction.h"

class InstallFromLocal : public InstallAction {
public:
    InstallFromLocal(const std::string& path, bool keepPackage);
    ApiErrorCode checkBeforeInstall(const std::string& id) override;
    ApiErrorCode getPackage() override;
    // Developer and official packages are both accepted.
    ApiErrorCode verifySign() override;
    std::string statOnceString() override;
    // Deletes the package unless it is to be kept, and the working directory.
    void cleanPackage() override;

private:
    std::string tmpDir_;
    bool keepPackage_;
};
