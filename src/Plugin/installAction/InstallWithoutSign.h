#pragma once
// A package already on the router installed without any signature step.
// No entry point creates it; it exists for tools that checked the package
// by other means.
#include "Plugin/installAction/InstallAction.h"

class InstallWithoutSign : public InstallAction {
public:
    InstallWithoutSign(const std::string& id, const std::string& packagePath);
    ApiErrorCode checkBeforeInstall(const std::string& id) override;
    ApiErrorCode getPackage() override;
    ApiErrorCode verifySign() override;
    std::string statOnceString() override;
    void cleanPackage() override;
};
