#pragma once
// The manifest store: one libconfig manifest per installed plugin in one
// directory, shared between processes, with an in-memory cache of the
// records. The cache is checked against the directory on every lookup: when
// the directory's stamp (nanosecond modification time, inode) moved on, or
// when the mark file "hasUpdated" exists (how a process that changed the
// store behind this object's back tells the others), each manifest is
// stat()ed and only those whose own stamp changed are parsed again. A stamp
// taken within FileStamp::kRacyWindow of the clock is not trusted, because a second
// change inside the same file-system time tick would leave it unchanged: such
// entries are looked at again on the next lookup.
// Reached through Singleton<PluginStorageManager>::instance().
#include <sys/stat.h>

#include <atomic>
#include <boost/thread/mutex.hpp>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/PluginInfo.h"
#include "storage/FileStamp.h"

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
    // Fills `info` from the manifest at `path` (one parse). False for an
    // invalid path or plugin id, or a file that cannot be read or parsed (it
    // is kept), or a numeric key that is not a whole number of its field's
    // range (logged; never thrown); a manifest that parses without
    // "plugin_id" is deleted. An install time beyond the 32-bit range is
    // clamped to it.
    bool getPluginInfoFromManifest(const std::string& path, datacenter::PluginInfo& info);
    // Reads the manifest at `path` and caches its record under its id.
    void addToList(const std::string& path);
    // The cached records by id, brought up to date first. A manifest whose
    // number does not convert is logged and left out; the others are listed.
    std::map<std::string, datacenter::PluginInfo> getPluginInfos();
    // The record of `id`; a record with an empty id when there is none.
    datacenter::PluginInfo getPluginInfoById(const std::string& id);
    // The same two look-ups under the names older callers use.
    std::map<std::string, datacenter::PluginInfo> getListablePluginInfos();
    datacenter::PluginInfo getListablePluginInfoById(const std::string& id);
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
    // How many manifest files this object has parsed since it was created
    // (for diagnostics and benchmarks of the reload cost).
    uint64_t manifestParseCount() const { return parseCount_.load(); }

private:
    typedef datacenter::FileStamp Stamp;
    // What the last scan saw of one directory entry.
    struct Entry {
        Stamp stamp;
        std::string id;     // empty: not a usable manifest
        bool racy = false;  // stamp too young to be trusted
    };
    enum class ReadResult { Read, NotManifest, Unreadable, NoId, BadId };

    // One parse of the manifest at `path` into `info`; `stamp` is the stamp
    // of the version read.
    ReadResult readManifest(const std::string& path, datacenter::PluginInfo& info, Stamp& stamp);
    // Brings the cache up to date with the directory; the mutex is held.
    void refreshLocked();
    // Rescans the directory, parsing only the entries whose stamp changed.
    void rescanLocked(const timespec& scanStart);
    // Whether the record cached for `path` can be kept as it is.
    bool unchangedLocked(const std::string& path, const Entry& entry) const;
    // Parses `path` and caches its record; the mutex is held.
    bool addLocked(const std::string& path, datacenter::PluginInfo& info);
    bool writeKeyToStorage(const std::string& id, const std::string& key, const std::string& value, const char* caller);

    std::string manifestRootPath;
    boost::mutex mutex_;
    std::map<std::string, datacenter::PluginInfo> pluginInfos_;
    time_t lastModified;
    // Directory entries of the last scan, by path, and which path's record
    // each cached id holds (the last one in directory order).
    std::unordered_map<std::string, Entry> entries_;
    std::unordered_map<std::string, std::string> ownerOf_;
    Stamp directoryStamp_;
    bool scanned_ = false;
    bool racyLeft_ = false;
    std::atomic<uint64_t> parseCount_{0};
};

// The texts of a switched-on and a switched-off setting: "on" and "off".
std::string getStateonStr();
std::string getStateoffStr();
