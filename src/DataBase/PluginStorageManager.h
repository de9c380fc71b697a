#pragma once
// The manifest store: one libconfig manifest per installed plugin in one
// directory, shared between processes. The mark file "hasUpdated" tells every
// other process that its cached list is stale.
#include <string>

class PluginStorageManager {
public:
    static const std::string sManifestFileExten;
    static const std::string sManifestSdkTokenKey;
    static const std::string sManifestStatusKey;
    static const std::string sManifestInstallTimeKey;
    static const std::string sUpdatedFile;

    // The store directory (plugin root + "/app_infos/"), created if missing.
    static std::string sGetManifestRootPath();
};
