#pragma once
// The manifest store: one libconfig manifest per installed plugin in one
// directory, shared between processes, with an in-memory cache of the
// records. The cache reloads when the directory's modification time moves
// on or when the mark file "hasUpdated" exists: that file is how a process
// that changed the store behind this object's back (the command-line
// installer) tells every other process that its list is stale.
// Reached through Singleton<PluginStorageManager>::instance().
#include <boost/thread/mutex.hpp>
#include <ctime>
#include <map>
#include <string>

#include "common/PluginInfo.h"

class PluginStorageManager {
public:
    static const std::string sManifestFileExten;
    static const std::string sManifestSdkTokenKey;
    static const std::string sManifestStatusKey;
    static const std::string sManifestInstallTimeKey;
    static const std::string sUpdatedFile;

    // Reads every manifest of the store into the cache.
    PluginStorageManager();
    virtual ~PluginStorageManager();
    PluginStorageManager(const PluginStorageManager&) = delete;
    PluginStorageManager& operator=(const PluginStorageManager&) = delete;

    // The store directory (plugin root + "/app_infos/"), created if missing.
    static std::string sGetManifestRootPath();
    // Store directory + id + ".manifest".
    std::string getManifestFilePath(const std::string& id);
    // True for a path that is not a directory and ends in ".manifest".
    bool isValidManifest(const std::string& path);
    // Fills `info` from the manifest at `path`. False for an invalid path or
    // plugin id; a manifest without "plugin_id" is deleted. Throws
    // boost::bad_lexical_cast when a numeric key is not a decimal number.
    bool getPluginInfoFromManifest(const std::string& path, datacenter::PluginInfo& info);
    // Reads the manifest at `path` and caches its record under its id.
    void addToList(const std::string& path);
    // The cached records by id, reloaded first when the store changed.
    std::map<std::string, datacenter::PluginInfo> getPluginInfos();
    // The record of `id`; a record with an empty id when there is none.
    datacenter::PluginInfo getPluginInfoById(const std::string& id);
    // Stamps the plugin's own manifest with the install time, copies it into
    // the store and reads it into `info` and the cache. False for an empty
    // argument or a failed copy.
    bool insertToStorage(const std::string& id, const std::string& manifestPath, datacenter::PluginInfo& info);
    // Writes the status (or use status) to the stored manifest and the cache.
    // False for an empty id or a missing manifest.
    bool updateStatusToStorage(const std::string& id, datacenter::PluginStatus status);
    bool updateUseStatusToStorage(const std::string& id, datacenter::PluginUseStatus useStatus);
    // Removes the id from the cache and its manifest from the store. Returns
    // whether the manifest existed; false for an empty id.
    bool deleteInStorage(const std::string& id);
    // Kept for callers of the older interface: changes nothing, returns false.
    bool updateToStorage(const datacenter::PluginInfo& info);
    // Kept for callers of the older interface: changes nothing.
    void resetStorage();

private:
    // Reads one manifest into a fresh record; false when it is not usable.
    bool readEntry(const std::string& path, datacenter::PluginInfo& info);
    bool writeKeyToStorage(const std::string& id, const std::string& key, const std::string& value, const char* caller);

    std::string manifestRootPath;
    boost::mutex mutex_;
    std::map<std::string, datacenter::PluginInfo> pluginInfos_;
    time_t lastModified;
};

// The texts of a switched-on and a switched-off setting: "on" and "off".
std::string getStateonStr();
std::string getStateoffStr();
