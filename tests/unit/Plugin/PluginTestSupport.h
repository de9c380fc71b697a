#pragma once
// Installs plugins into the manifest store the way an installation leaves
// them, so that manager tests start from a known set of plugins.
#include <algorithm>
#include <string>
#include <vector>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/PluginInfo.h"
#include "common/Singleton.h"
#include "storage/Directory.h"
#include "system/ConfigInfo.h"
#include "system/RootPrefix.h"

namespace testsupport {

inline std::string storeManifest(const std::string& id) {
    return PluginStorageManager::sGetManifestRootPath() + id + ".manifest";
}

// Writes a manifest for `id` with `status` into the store and marks the store
// updated; creates the plugin's data directory as an installation would.
inline void putPlugin(const std::string& id, datacenter::PluginStatus status) {
    datacenter::Directory::sCreateDirectory(datacenter::RootPrefix::sPath("/userdisk/appdata/" + id + "/etc"));
    datacenter::ConfigInfo* config = datacenter::ConfigInfo::sGetInstance();
    config->setConfigToFile(storeManifest(id), "plugin_id", id);
    config->setConfigToFile(storeManifest(id), "name", "plugin " + id);
    config->setConfigToFile(storeManifest(id), "status", std::to_string(static_cast<int>(status)));
    config->setConfigToFile(PluginStorageManager::sGetManifestRootPath() + PluginStorageManager::sUpdatedFile, "t", id);
}

inline datacenter::PluginStatus storedStatus(const std::string& id) {
    return Singleton<PluginStorageManager>::instance()->getPluginInfoById(id).status;
}

// Whether the manager's plugin list names `id`.
inline bool isListed(const std::string& id) {
    std::vector<datacenter::PluginInfo> plugins;
    Singleton<PluginManager>::instance()->getPluginList(plugins);
    return std::any_of(plugins.begin(), plugins.end(),
                       [&id](const datacenter::PluginInfo& plugin) { return plugin.id == id; });
}

}  // namespace testsupport
