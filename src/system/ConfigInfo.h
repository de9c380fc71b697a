#pragma once
// The process-wide configuration object: where everything lives on the
// router, and the only access to libconfig files. Every read-modify-write of
// any libconfig file in this process runs under one lock held here.
#include <atomic>
#include <boost/thread/mutex.hpp>
#include <cstdint>
#include <libconfig.h++>
#include <string>
#include <vector>

#include "storage/FileStamp.h"
#include "storage/UniqueFd.h"

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
    // Runs `work` under the lock that serialises every configuration-file
    // access of this process (for readers that parse a file themselves).
    template <typename Work>
    void withFileLock(Work&& work) {
        boost::mutex::scoped_lock lock(configMutex_);
        work();
    }
    // Cuts lines off the end of a file that fails to parse until the rest parses.
    // The caller holds the configuration lock.
    void fixDamagedFile(const std::string& path);
    // Creates the configuration root, clears stale caches and loads (repairing if needed) the global file.
    void init();

    // ---- Storage layout ---------------------------------------------------
    // Every path below is under the root prefix. Getters marked "created"
    // make the directory (with its parents, mode 0777) when it is missing.

    const std::string& getGlobalConfigPath() const { return globalConfigPath; }
    // How often the global file was parsed (diagnostics; the cache's tests).
    uint64_t globalReadCount() const { return globalReads_.load(); }
    std::string getConfigRoot();  // created
    std::string getUserdiskRootPath() const;
    std::string getUserdiskDataPath() const;
    std::string getDataFolderPath();  // created
    std::string getPrivacyDataFolderPath() const;
    std::string getNewPrivacyDataFolderPath() const;
    std::string getUserdiskAppDataPath() const;
    std::string getKuaipanFolderPath();  // created, with a log line
    std::string getExtdiskRootPath() const;
    std::string getExtdiskDeviceId() const;
    std::string getExtdiskDeviceName() const;
    std::string getExtdiskUmntPath();           // creates the configuration root
    std::string getDatabaseRootPath();          // created
    std::string getDatabaseDeviceConfigPath();  // created
    std::string getPinyinDatabasePath();        // creates the database root
    std::string getThumbnailRootPath() const;
    std::string getSmallIconsRootPath() const;
    std::string getMiddleIconsRootPath() const;
    std::string getImportedExtThumbsRootPath() const;
    std::string getTorrentFolderPath();  // created
    std::string getTDDOWNLOADRootPath() const;
    std::string getDownloadFolderPath();  // computed once, created
    std::string getLogPath();
    std::string getFormattedStorageRoot();  // creates the data path first
    // Whether the formatted storage root exists (after creating the data path).
    bool hasFormattedStorage();
    // Only logs `path`.
    void setHasFormattedStorageRoot(const std::string& path);
    std::string getLocalizationFolder() const;
    std::string getMinidlnaConfigPath() const;
    std::string getSambaConfigPath() const;
    std::string getLoginMacConfigPath() const;
    std::string getNonLoginMacConfigPath() const;
    std::string getUserdiskDataName() const;
    std::string getLumoAppProcessName() const;
    std::string getShareDirConfigPath() const;
    std::string getExtShareDirConfigDirName() const;
    std::string getExtShareDirConfigFileName() const;
    std::string getTimecapsuleName() const;
    std::string getTimeMachineBackupPath() const;
    std::string getXlShuijingDirName() const;
    std::string getXlShuijingPath() const;
    std::string getXlShuijingNewDirName() const;
    std::string getXlShuijingNewPath() const;
    std::string getAutoBackupConfigPath() const;
    std::string getHardDiskBackupConfigPath() const;
    std::string getHardDiskBackupSourceFile() const;
    std::string getLumoMacConfigPath() const;
    std::string getCopySourceFile() const;
    std::string getCopyProgressConfigFile() const;
    std::string getPluginProcessConfigPath() const;
    std::string getPluginTaskmonitorConfigPath() const;
    std::string getCameraAutoImportConfigPath() const;
    std::string getPTPCameraMountPoint() const;
    std::string getPTPCameraDevice() const;
    std::string getPTPCameraUsbInfoDevice() const;
    std::string getPTPCameraExistPath() const;
    std::string getCamloCameraDirName() const;
    std::string getCamloCameraPath() const;
    std::string getCamloActionCameraName() const;
    std::string getXunleiTaskIntroduction() const;
    std::string getSystemTasksIntroduction() const;
    // The device named by "PRIMARY=" in /tmp/userdisk_info at start-up, or "".
    std::string getPrimaryDiskDevice() const;
    // Folders that the media index skips, with the user-data prefix.
    std::vector<std::string> getIndexIgnoredFolders() const;

    // Localised folder names and labels ("" when the localisation lacks them).
    const std::string& getBackupImageDirName() const { return backupImageDirName_; }
    const std::string& getBackupVideoDirName() const { return backupVideoDirName_; }
    const std::string& getBackupAudioDirName() const { return backupAudioDirName_; }
    const std::string& getBackupDocumentDirName() const { return backupDocumentDirName_; }
    const std::string& getBackupOtherDirName() const { return backupOtherDirName_; }
    const std::string& getBackupCustomDirName() const { return backupCustomDirName_; }
    const std::string& getBackupMark() const { return backupMark_; }
    const std::string& getDefaultLabelForNolabelExtdisk() const { return defaultLabelForNolabelExtdisk_; }
    const std::string& getBackupDefaultLabel() const { return backupDefaultLabel_; }
    const std::string& getInitCreateShareDirName() const { return initCreateShareDirName_; }
    const std::string& getInitCreateDownloadDirName() const { return initCreateDownloadDirName_; }
    const std::string& getBackupRouterDiskDirName() const { return backupRouterDiskDirName_; }
    // Video, image, audio, document, share and download folder names, in that order.
    std::vector<std::string> getMainDirectoriesName() const;

    // Backup drive path, initially the user data path; guarded by the backup mutex.
    std::string getBackupDrivePath();
    void setBackupDrivePath(const std::string& path);
    // Backup drive path + "/" + key.
    std::string getBackupRootPath(const std::string& key);
    // The same; `existed` tells whether the path exists.
    std::string getBackupRootPath(bool& existed, const std::string& key);
    // The backup root of `key` when n is 1, else its image folder.
    std::string getBackupImagePath(const std::string& key, int n);
    std::string getBackupVideoPath(const std::string& key);
    std::string getBackupAudioPath(const std::string& key);
    std::string getBackupDocumentPath(const std::string& key);
    std::string getBackupOtherPath(const std::string& key);
    std::string getBackupCustomPath(const std::string& key);
    // The same paths; `existed` tells whether the path existed, and with
    // `create` a missing path is created.
    std::string getBackupImagePath(bool& existed, bool create, const std::string& key, int n);
    std::string getBackupVideoPath(bool& existed, bool create, const std::string& key);
    std::string getBackupAudioPath(bool& existed, bool create, const std::string& key);
    std::string getBackupDocumentPath(bool& existed, bool create, const std::string& key);
    std::string getBackupOtherPath(bool& existed, bool create, const std::string& key);
    std::string getBackupCustomPath(bool& existed, bool create, const std::string& key);

    // False for paths containing "../"; true below the user data path or
    // (letter case ignored) below the external disk root.
    bool isUserDataPath(const std::string& path) const;
    // True when `name` occurs anywhere in sKnownCamera (an empty name does).
    bool isRecognizableCamera(const std::string& name) const;

    // Makes sure the user data path exists; returns the plugin root
    // (user-disk root + "/appdata/").
    static std::string sGetPluginRootPath();

    static const std::string sHalvardStorageConfigName;
    static const std::string sHalvardStorageRootName;
    static const std::string sHalvardKuaipanRootName;
    static const std::string sPluginRootDirectory;
    static const std::string sKnownCamera;
    static const std::string sNeedCreateDataFolderKey;
    static const std::string sNeedSetShareStatusKey;
    static const std::string sNeedShareTDDOWNLOADKey;
    static const std::string sNeedPopUserInstruction;
    static const std::string sLatestBackupDiskTimeKey;
    static const std::string sNeedCopyInstructionKey;
    static const std::string sNeedMoveThumbnailKey;
    static const std::string sNeedDisplaySystemFoldersKey;

private:
    ConfigInfo();
    // The configuration folder, opened without following a link: it lies on
    // the user disk, where a plugin with "access_userdata" can put a link in
    // its place. Invalid (and logged) when a link or anything but a folder
    // stands there; then nothing in it is deleted, read or written.
    UniqueFd openConfigFolder() const;
    // The stamp of the global file in the folder opened above; false when
    // it is not there.
    static bool sStampGlobalFile(const UniqueFd& folder, FileStamp& stamp);
    // Cuts lines off the end of the global file until the rest parses.
    void repairGlobalFile(const UniqueFd& folder);
    void loadGlobalFileLocked(const UniqueFd& folder);
    // Reads the global file into config_ unless config_ already holds the
    // version on disk (same stamp, old enough to be trusted): the port of a
    // plugin and other settings are looked up on every call.
    void refreshGlobalLocked();
    void localization();
    void readPrimaryDiskDevice();
    void buildIndexIgnoredFolders();
    std::string backupSubPath(bool& existed, bool create, const std::string& path);

    std::string globalConfigPath;
    std::string configRoot;
    libconfig::Config config_;
    FileStamp globalStamp_;
    bool globalLoaded_ = false;
    std::atomic<uint64_t> globalReads_{0};
    boost::mutex configMutex_;

    std::string localizationFolder_;
    std::string backupImageDirName_;
    std::string backupVideoDirName_;
    std::string backupAudioDirName_;
    std::string backupDocumentDirName_;
    std::string backupOtherDirName_;
    std::string backupCustomDirName_;
    std::string backupMark_;
    std::string extdiskDeviceName_;
    std::string defaultLabelForNolabelExtdisk_;
    std::string backupDefaultLabel_;
    std::string initCreateVideoDirName_;
    std::string initCreateImageDirName_;
    std::string initCreateAudioDirName_;
    std::string initCreateDocDirName_;
    std::string initCreateShareDirName_;
    std::string initCreateDownloadDirName_;
    std::string userdiskNewPrivacyDataPath_;
    std::string backupRouterDiskDirName_;
    std::string camloCameraDirName_;
    std::string camloActionCameraName_;
    std::string xunleiTaskIntroduction_;
    std::string systemTasksIntroduction_;

    std::string primaryDiskDevice_;
    std::vector<std::string> indexIgnoredFolders_;
    boost::mutex downloadFolderMutex_;
    std::string downloadFolderPath_;
    boost::mutex backupMutex_;
    std::string backupDrivePath_;
};

// The plugin root: the user-disk root followed by "/appdata/".
std::string planformetPluginRootPath();
// Name of the plugin controller command, found through the search path.
std::string planformGetPluginControllorPath();
// Directory of the router's own binaries.
std::string planformBinPrefix();

}  // namespace datacenter
