#pragma once
// The one central object of the plugin core, reached through
// Singleton<PluginManager>::instance(): every operation on installed plugins
// passes through it. Shared state lives in files (manifests, the pid file,
// configuration files), so several processes can run a manager at once.
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Plugin/Plugin.h"
#include "Plugin/PluginItemBase.h"
#include "Plugin/installAction/InstallAction.h"
#include "Plugin/zkfactory.h"
#include "common/ApiErrorCode.h"
#include "common/PluginInfo.h"

class PluginManager {
public:
    typedef zkfactory::FactoryWithDefaultCreate<
        AbsPlugin, std::string, AbsPlugin* (*)(PluginManager*, const std::string&),
        &zkfactory::create<AbsPlugin, BinaryPlugin, PluginManager*, const std::string&>>
        PluginFactory;
    typedef AbsChangeStatus* (*StatusCreator)();

    static const std::string sManifestFileName;
    static const std::string sDownloadQpkLocalName;
    static const std::string sVerifiedQpkLocalName;
    static const std::string sPluginConfigFileDirectory;
    static const std::string sPluginConfigFileName;
    static const std::string sChrootRunScriptPath;
    static const std::string sUnmountChrootPath;
    static const std::string sConfigKeyPrefix;
    static const std::string sSdkLevelFilePath;
    static const std::string sPluginPidConfigFile;
    static const std::string sDeveloperSSHRoot;
    static const std::string sDeveloperSSHPluginId;
    static const std::string sDeveloperSSHInfoManifest;
    static const std::string sUrlInstallTmpPath;

    PluginManager();
    virtual ~PluginManager();
    PluginManager(const PluginManager&) = delete;
    PluginManager& operator=(const PluginManager&) = delete;

    // ---- Paths (composed as written, never normalised) --------------------
    static std::string sGetPluginRootPath();
    // "" for an empty id, else plugin root + id + "/".
    static std::string sGetPluginDataPath(const std::string& id);
    static std::string sGetPluginManifestPath(const std::string& id);
    static std::string sGetQpkLocalPath(const std::string& id);
    static std::string sGetPluginPidConfig();
    std::string getConfigFilePath(const std::string& id) const;
    static std::string getPortKeyPrefix() { return "port_of_"; }
    static std::string getPidKeyPrefix() { return "pid_of_"; }

    // ---- Queries and bookkeeping ------------------------------------------
    // 2512 for an unknown plugin (status untouched), else 0.
    ApiErrorCode getPluginStatus(const std::string& id, datacenter::PluginStatus& status);
    // 2 for an empty id; else 0 with the record (empty for an unknown plugin).
    ApiErrorCode getPluginById(datacenter::PluginInfo& info, std::string id);
    // 0, or 2510 when the manifest store refuses.
    ApiErrorCode updatePluginUseStatus(const std::string& id, datacenter::PluginUseStatus useStatus);
    // PORT replaces the plugin's port, PID appends to its ";"-separated pid list. Always 0.
    static ApiErrorCode sSetPluginPort(const std::string& id, const std::string& value,
                                       datacenter::PluginSetValueType type);
    ApiErrorCode setPluginPort(const std::string& id, const std::string& value, datacenter::PluginSetValueType type);
    // Forgets every process id recorded for the plugin.
    void resetPluginPids(const std::string& id);
    ApiErrorCode killAllPlugin();
    // Writes the developer plugin's manifest with a fresh token. Always 0.
    ApiErrorCode generatePluginSSHManifest(std::string id, const std::vector<std::string>& capabilities);
    // 32 upper-case hexadecimal digits from a new random UUID.
    static std::string sNewSdkToken();

    // ---- Listing ----------------------------------------------------------
    ApiErrorCode getPluginList(std::vector<datacenter::PluginInfo>& out);
    // Publishes the installed ids through "matool"; nothing when none is installed.
    void updatePluginListToServer();
    // The item for code 1 or 3; empty for any other code.
    boost::shared_ptr<PluginItemBase> getItem(ApiPluginCode code);

    // ---- Status changes ---------------------------------------------------
    // 0, 3, 4, 2510, 2530 (no manifest), 2534 (exception), or the hook's own code.
    ApiErrorCode changePluginStatus(const std::string& id, datacenter::PluginStatus status);
    // The same, with statusMutex_ already held.
    ApiErrorCode changePluginStatusImpl(const std::string& id, datacenter::PluginStatus status);
    // First-connection activation of the TV app: 0, 2512, 3001, 4 or the status change's code.
    ApiErrorCode enableLumoapp();

    // ---- Control and configuration data -----------------------------------
    // Forwards `request` to the plugin's RPC port: 0, 1055 on a timeout, 2502 otherwise.
    ApiErrorCode controlPlugin(const std::string& id, const std::string& request, std::string& response);
    ApiErrorCode getPluginConfigData(const std::string& id, const std::string& key, std::string& value);
    ApiErrorCode setPluginConfigData(const std::string& id, const std::string& key, std::string value);
    // Runs `fn` on the plugin's configuration file under an exclusive flock:
    // 0, 1038 (cannot open), 2518 (lock), 2505/2517 (accessor threw), 2502 (bad id).
    ApiErrorCode controlConfigData(const std::string& id, const std::string& key, std::string& value,
                                   void (*fn)(const std::string&, const std::string&, std::string&));

    // ---- Installation (entry points) -------------------------------------
    // Installs the package file at `path` on the calling thread; `keepPackage`
    // false deletes it after its signature check. 2506 while another
    // installation runs, else the pipeline's result.
    ApiErrorCode installFromLocal(const std::string& path, bool keepPackage);
    // Start the pipeline on a detached thread: 2506, the pre-check's code, or 0.
    ApiErrorCode installFromServer(const std::string& id, const std::string& url);
    ApiErrorCode upgradeFromServer(const std::string& id, const std::string& url);
    ApiErrorCode installFromUrl(const std::string& url);
    ApiErrorCode installFromServerWithOutLock(const std::string& id, const std::string& url);
    ApiErrorCode checkLocalExistBeforeInstall(std::string id);
    // The record of the current installation: 0, or 2512 when there was none.
    ApiErrorCode getUrlInstallPlugin(datacenter::PluginInfo& out);
    // Waits up to `timeoutMs` for the current installation's thread to finish
    // its run; true when it has (or when none was ever started).
    bool waitForInstallation(int timeoutMs);

    // ---- Installation (package helpers, same contracts as InstallAction's) --
    std::string getIdFromPackage(const std::string& zipPath);
    ApiErrorCode putPackageToTmpDir(const std::string& package, std::string& tmpDir, std::string& zipPath);
    bool unzip(std::string zipPath, std::string destDir);
    // Keeps a byte copy of the package under "/userdisk/appdata/app_package/": 0.
    ApiErrorCode savePluginPackage(const std::string& id, const std::string& packagePath);

    // ---- Maintenance ------------------------------------------------------
    // Moves the time-machine plugin's data out of its sandbox for versions above 1.3.
    void moveTimeMachineData(const std::string& id);
    void mvTimemachinePluginData(const std::string& from, const std::string& to) const;
    // Empties the plugin's directory down to the sandbox skeleton: 0, or 4 without a directory.
    ApiErrorCode cleanPluginImpl(const std::string& id) const;
    // Unmounts and removes the plugin's chroot folders: 0 or 2502.
    ApiErrorCode umountRemoveChrootFolder(const std::string& id, std::string& output);

    bool isUndeletable(const std::string& id) const { return undeletableIds_.count(id) != 0; }
    AbsPlugin* createPlugin(const std::string& id) { return pluginFactory_.create(id, this, id); }

private:
    void registerPluginKinds();

    boost::mutex installMutex_;
    boost::mutex statusMutex_;
    PluginFactory pluginFactory_;
    std::map<datacenter::PluginStatus, StatusCreator> statusFactory_;
    std::set<std::string> undeletableIds_;
    boost::shared_ptr<InstallAction> installAction_;
    // Guards the pointer installAction_ itself (not the action), which the
    // installing thread and readers on other threads share.
    mutable boost::mutex actionMutex_;

    boost::shared_ptr<InstallAction> currentAction() const;
    // Makes `action` the current one unless an installation runs: false then.
    bool replaceAction(const boost::shared_ptr<InstallAction>& action);
    // Pre-check, start mark and a detached thread for a server source.
    ApiErrorCode startServerInstall(const boost::shared_ptr<InstallAction>& action, const std::string& id);
};

// Accessors for controlConfigData.
void getDataFun(const std::string& path, const std::string& key, std::string& value);
void setDataFun(const std::string& path, const std::string& key, std::string& value);
