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

#include "Plugin/PidMetrics.h"
#include "Plugin/Plugin.h"
#include "Plugin/PluginItemBase.h"
#include "Plugin/installAction/InstallAction.h"
#include "Plugin/zkfactory.h"
#include "common/ApiErrorCode.h"
#include "common/PluginInfo.h"

struct json_object;

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

    // ---- Listing, progress and metrics ------------------------------------
    // Every stored record in ascending id order. Always 0.
    ApiErrorCode getPluginList(std::vector<datacenter::PluginInfo>& out);
    // The running (or last failed) installation's record when it is this id,
    // else the stored record; empty for an unknown plugin. Always 0.
    ApiErrorCode getOnePlugin(std::vector<datacenter::PluginInfo>& out, const std::string& id);
    // One record per ";"-separated id, in order (a default record with status
    // 0 for an unknown one; progress 100 while installing). Returns the last
    // getOnePlugin result, 0 for an empty list.
    ApiErrorCode getPluginInstallProgress(std::vector<datacenter::PluginInfo>& out, const std::string& ids);
    // Publishes the installed ids through "matool"; nothing when none is installed.
    void updatePluginListToServer();
    // Appends one record per recorded pid of the plugin ("top" and a one-second
    // "pidstat" sample each) that /proc shows to be the plugin's own process
    // (others are skipped with a log line), at most 16 processes from the
    // first 64 entries. False for an unsafe id or at the first pid entry that
    // is not a plain decimal of at most 10 digits (records so far stay).
    bool getPluginMetrics(const std::string& id, std::vector<PidMetrics>& out) const;
    // Gathers the plugin's metrics and appends one JSON object per PidMetrics
    // ("pid", "cpuPercent", "memPercent", "readKBPerSec", "writeKBPerSec") to
    // `array`: 0, or 3 when `array` is null.
    ApiErrorCode monitorPlugin(const std::string& id, json_object* array) const;
    // The item for code 1 or 3; empty for any other code.
    boost::shared_ptr<PluginItemBase> getItem(ApiPluginCode code);
    // The 17 characters after the first "HWaddr " of "ifconfig": 0, or 2502
    // (out unchanged) when the command fails or names no address.
    ApiErrorCode getRouterMac(std::string& out);
    // The router web API's device list, unparsed: 0, or 2502 when the request fails.
    ApiErrorCode getConnectedDeviceList(std::string& out);
    // Switches a device's internet access: 0, or 2502 when the request fails
    // or `mac` holds anything but hexadecimal digits, ":" and "-".
    ApiErrorCode SetDeviceWan(const std::string& mac, bool allow);
    // Whether the maker's service offers this plugin version in the router's
    // country; false for an unsafe id.
    bool checkCountryCode(const std::string& id);
    // Host (and optional port) of the router's web API; "localhost" by default.
    static std::string sRouterWebHost();
    static void sSetRouterWebHost(const std::string& host);

    // ---- Uninstall and clean ----------------------------------------------
    // Takes the plugin off the router, leaving the sandbox skeleton in its
    // directory: 0, 2528 (built-in), 2 (empty id), 2502 (unsafe id, unmount or
    // record removal failed; nothing runs for an unsafe id), 2506 (this plugin
    // is being installed), the disable step's code, or 4.
    ApiErrorCode uninstallPlugin(const std::string& id);
    // Removes what was added to the plugin's directory since installation and
    // restarts it: 0, 1081 (no readable file record), 1001 (removal failed),
    // 2502 for an unsafe id (nothing runs).
    ApiErrorCode cleanPlugin(const std::string& id);
    // Removal walk with a keep map (true: keep and walk into; false: keep
    // whole; absent: remove). Links are removed as links, never followed.
    // False when `path` is missing or a removal fails.
    bool removeFileIterative(const std::string& path, const std::map<std::string, bool>& keep) const;
    // Does nothing.
    void cleanPluginWhenFailed(const std::string& id);

    // ---- Chroot sandbox and capabilities ----------------------------------
    // Run "chroot_run_script.sh <dir> ..." with output: 0, or 2502 for an
    // empty or unsafe id or argument (nothing runs) or when it cannot start.
    ApiErrorCode chrootRunCommand(const std::string& id, const std::string& command, std::string& output);
    ApiErrorCode chrootRunScript(const std::string& id, const std::string& script, std::string& output);
    ApiErrorCode chrootRunbinary(const std::string& id, const std::string& binary, std::string& output);
    // Whether the plugin presenting `token` may use `capability`: 0 (see
    // `allowed`), 2519 for a wrong token, 5 for an unknown or unsafe id.
    ApiErrorCode verifyCapability(const std::string& id, const std::string& token, const std::string& capability,
                                  bool& allowed);

    // ---- Status changes ---------------------------------------------------
    // 0, 3, 4, 2510, 2530 (no manifest; also for an unsafe id, before anything
    // runs), 2534 (exception), or the hook's own code.
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
    // The most recent installation, running or finished; empty before the first.
    boost::shared_ptr<InstallAction> currentAction() const;
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
    // Unmounts and removes the plugin's chroot folders: 0, or 2502 (also for an unsafe id).
    ApiErrorCode umountRemoveChrootFolder(const std::string& id, std::string& output);

    bool isUndeletable(const std::string& id) const { return undeletableIds_.count(id) != 0; }
    AbsPlugin* createPlugin(const std::string& id) { return pluginFactory_.create(id, this, id); }

private:
    void registerPluginKinds();
    // Starts a plugin whose interrupted upgrade was rolled back while this
    // manager was being made, the way an enable does.
    void restartRecovered(const std::string& id);
    // An uninstallation's steps after the plugin is stopped: 0, 2502 or the clean's code.
    ApiErrorCode removeUninstalled(const std::string& id);
    // Finishes an uninstallation the journal says died part-way.
    void finishUninstall(const std::string& id);
    void removeEtcDirectory(const std::string& id) const;

    boost::mutex installMutex_;
    boost::mutex statusMutex_;
    PluginFactory pluginFactory_;
    std::map<datacenter::PluginStatus, StatusCreator> statusFactory_;
    std::set<std::string> undeletableIds_;
    boost::shared_ptr<InstallAction> installAction_;
    // Guards the pointer installAction_ itself (not the action), which the
    // installing thread and readers on other threads share.
    mutable boost::mutex actionMutex_;

    // Makes `action` the current one unless an installation runs: false then.
    bool replaceAction(const boost::shared_ptr<InstallAction>& action);
    // Pre-check, start mark and a detached thread for a server source.
    ApiErrorCode startServerInstall(const boost::shared_ptr<InstallAction>& action, const std::string& id);
};

// Accessors for controlConfigData.
void getDataFun(const std::string& path, const std::string& key, std::string& value);
void setDataFun(const std::string& path, const std::string& key, std::string& value);
