#pragma once
// The process-wide configuration object: where everything lives on the
// router, and the only access to libconfig files. Every read-modify-write of
// any libconfig file in this process runs under one lock held here.
#include <boost/thread/mutex.hpp>
#include <libconfig.h++>
#include <string>
#include <vector>

namespace datacenter {

class ConfigInfo {
public:
    static ConfigInfo* sGetInstance();
    virtual ~ConfigInfo();
    ConfigInfo(const ConfigInfo&) = delete;
    ConfigInfo& operator=(const ConfigInfo&) = delete;

    // ---- Configuration files --------------------------------------------

    // Value of `key` in the global configuration file (re-read first), or "".
    std::string getConfig(const std::string& key);
    // Stores `key` in the global file; an empty value deletes the key.
    void setConfig(const std::string& key, const std::string& value);
    // Value of `key` in the file at `path`, or "" (under the lock).
    std::string getConfigFromFile(const std::string& path, const std::string& key);
    // The same without the lock.
    static std::string sGetConfigFromFile(const std::string& path, const std::string& key);
    // Stores `key` in the file at `path` (created when missing); an empty value deletes the key.
    void setConfigToFile(const std::string& path, const std::string& key, const std::string& value);
    // Elements of the string array `key`; empty for a missing key or a setting of another kind.
    std::vector<std::string> getListFromFile(const std::string& path, const std::string& key);
    // Value of `key` in the document `text`, or "".
    std::string getConfigFromString(const std::string& text, const std::string& key);
    // Cuts lines off the end of a file that fails to parse until the rest parses.
    // The caller holds the configuration lock.
    void fixDamagedFile(const std::string& path);
    // Creates the configuration root, clears stale caches and loads (repairing if needed) the global file.
    void init();

    // ---- Storage layout -------------------------------------------------

    const std::string& getGlobalConfigPath() const { return globalConfigPath; }
    std::string getConfigRoot();
    std::string getUserdiskRootPath() const;

    static const std::string sPluginRootDirectory;

private:
    ConfigInfo();
    void loadGlobalFileLocked();

    std::string globalConfigPath;
    std::string configRoot;
    libconfig::Config config_;
    boost::mutex configMutex_;
};

// The plugin root: the user-disk root followed by "/appdata/".
std::string planformetPluginRootPath();
// Name of the plugin controller command, found through the search path.
std::string planformGetPluginControllorPath();
// Directory of the router's own binaries.
std::string planformBinPrefix();

}  // namespace datacenter
