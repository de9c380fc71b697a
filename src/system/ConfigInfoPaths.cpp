// The fixed part of the storage layout: every getter of a path or name that
// does not depend on the localisation. All fixed paths carry the root prefix.
#include <glog/logging.h>

#include "storage/Directory.h"
#include "system/ConfigInfo.h"
#include "system/RootPrefix.h"

namespace datacenter {
namespace {

const char* const kUserdiskRoot = "/userdisk";
const char* const kUserdiskData = "/userdisk/data";
const char* const kConfigRoot = "/userdisk/datacenterConfig";
const char* const kSystemConfig = "/userdisk/data/.systemconfig";

std::string prefixed(const std::string& path) {
    return RootPrefix::sPath(path);
}

// Creates `path` when nothing exists there and hands it back.
std::string created(const std::string& path) {
    if (!Directory::sExists(path)) {
        Directory::sCreateDirectory(path);
    }
    return path;
}

}  // namespace

const std::string ConfigInfo::sHalvardStorageConfigName = "halvardStorageConfig.cfg";
const std::string ConfigInfo::sHalvardStorageRootName = "data";
const std::string ConfigInfo::sHalvardKuaipanRootName = "kuaipan";
const std::string ConfigInfo::sPluginRootDirectory = "/appdata/";
const std::string ConfigInfo::sKnownCamera =
    "Ambarella CamLo GoPro Sony NIKON Canon Inc. FUJIFILM SAMSUNG CASIO Panasonic PENTAX OLYMPUS LEICA";
const std::string ConfigInfo::sNeedCreateDataFolderKey = "needCreateDataFolder";
const std::string ConfigInfo::sNeedSetShareStatusKey = "needSetShareStatus";
const std::string ConfigInfo::sNeedShareTDDOWNLOADKey = "needShareTDDOWNLOAD";
const std::string ConfigInfo::sNeedPopUserInstruction = "needPopUserInstruction";
const std::string ConfigInfo::sLatestBackupDiskTimeKey = "latestBackupDiskTime";
const std::string ConfigInfo::sNeedCopyInstructionKey = "needCopyInstruction";
const std::string ConfigInfo::sNeedMoveThumbnailKey = "needMoveThumbnails";
const std::string ConfigInfo::sNeedDisplaySystemFoldersKey = "needDisplaySystemFolder";

std::string ConfigInfo::sGetPluginRootPath() {
    created(prefixed(kUserdiskData));
    return prefixed(kUserdiskRoot) + sPluginRootDirectory;
}

std::string ConfigInfo::getConfigRoot() {
    return created(configRoot);
}

std::string ConfigInfo::getUserdiskRootPath() const {
    return prefixed(kUserdiskRoot);
}

std::string ConfigInfo::getUserdiskDataPath() const {
    return prefixed(kUserdiskData);
}

std::string ConfigInfo::getDataFolderPath() {
    return created(prefixed(kUserdiskData));
}

std::string ConfigInfo::getPrivacyDataFolderPath() const {
    return prefixed("/userdisk/privacyData");
}

std::string ConfigInfo::getNewPrivacyDataFolderPath() const {
    return userdiskNewPrivacyDataPath_;
}

std::string ConfigInfo::getUserdiskAppDataPath() const {
    return prefixed("/userdisk/appdata");
}

std::string ConfigInfo::getKuaipanFolderPath() {
    const std::string path = prefixed("/userdisk/kuaipan");
    if (!Directory::sExists(path)) {
        LOG(INFO) << "ConfigInfo::getKuaipanFolderPath: not exist kuaipan path and create " << path;
        Directory::sCreateDirectory(path);
    }
    return path;
}

std::string ConfigInfo::getExtdiskRootPath() const {
    return prefixed("/extdisks");
}

std::string ConfigInfo::getExtdiskDeviceId() const {
    return "USB";
}

std::string ConfigInfo::getExtdiskDeviceName() const {
    return extdiskDeviceName_;
}

std::string ConfigInfo::getExtdiskUmntPath() {
    return getConfigRoot() + "/umntpath.cfg";
}

std::string ConfigInfo::getDatabaseRootPath() {
    return created(prefixed(kSystemConfig) + "/DataBase");
}

std::string ConfigInfo::getDatabaseDeviceConfigPath() {
    return created(prefixed(kUserdiskRoot) + "/backupDBDevice");
}

std::string ConfigInfo::getPinyinDatabasePath() {
    return getDatabaseRootPath() + "/pinyin.db";
}

std::string ConfigInfo::getThumbnailRootPath() const {
    return prefixed(kSystemConfig) + "/.thumbnails/";
}

std::string ConfigInfo::getSmallIconsRootPath() const {
    return getThumbnailRootPath() + "smallIcons";
}

std::string ConfigInfo::getMiddleIconsRootPath() const {
    return getThumbnailRootPath() + "middleIcons";
}

std::string ConfigInfo::getImportedExtThumbsRootPath() const {
    return getThumbnailRootPath() + "importedExtThumbs";
}

std::string ConfigInfo::getTorrentFolderPath() {
    return created(prefixed(kUserdiskData) + "/torrent/");
}

std::string ConfigInfo::getTDDOWNLOADRootPath() const {
    return prefixed(kUserdiskData) + "/TDDOWNLOAD";
}

std::string ConfigInfo::getDownloadFolderPath() {
    boost::mutex::scoped_lock lock(downloadFolderMutex_);
    if (downloadFolderPath_.empty()) {
        downloadFolderPath_ = prefixed(kUserdiskData) + "/" + initCreateDownloadDirName_ + "/";
    }
    return created(downloadFolderPath_);
}

std::string ConfigInfo::getLogPath() {
    return getFormattedStorageRoot() + "/log/datacenter";
}

std::string ConfigInfo::getFormattedStorageRoot() {
    created(prefixed(kUserdiskData));
    return prefixed(kUserdiskRoot);
}

bool ConfigInfo::hasFormattedStorage() {
    return Directory::sExists(getFormattedStorageRoot());
}

void ConfigInfo::setHasFormattedStorageRoot(const std::string& path) {
    LOG(INFO) << path;
}

std::string ConfigInfo::getLocalizationFolder() const {
    return localizationFolder_;
}

std::string ConfigInfo::getMinidlnaConfigPath() const {
    return prefixed("/etc/config/minidlna");
}

std::string ConfigInfo::getSambaConfigPath() const {
    return prefixed("/etc/config/samba");
}

std::string ConfigInfo::getLoginMacConfigPath() const {
    return prefixed("/tmp/loginMac.cfg");
}

std::string ConfigInfo::getNonLoginMacConfigPath() const {
    return prefixed(kConfigRoot) + "/nonLoginMac.cfg";
}

std::string ConfigInfo::getUserdiskDataName() const {
    return "Korvia";
}

std::string ConfigInfo::getLumoAppProcessName() const {
    return "mediaservice";
}

std::string ConfigInfo::getShareDirConfigPath() const {
    return prefixed("/userdisk/datacenterConfig/hvSharePath.cfg");
}

std::string ConfigInfo::getExtShareDirConfigDirName() const {
    return "korvia_config";
}

std::string ConfigInfo::getExtShareDirConfigFileName() const {
    return "korvia_extSharePath.cfg";
}

std::string ConfigInfo::getTimecapsuleName() const {
    return "timecapsule";
}

std::string ConfigInfo::getTimeMachineBackupPath() const {
    return prefixed(kUserdiskData) + "/" + getTimecapsuleName();
}

std::string ConfigInfo::getXlShuijingDirName() const {
    return "shuijing_cache";
}

std::string ConfigInfo::getXlShuijingPath() const {
    return prefixed(kUserdiskData) + "/" + getXlShuijingDirName();
}

std::string ConfigInfo::getXlShuijingNewDirName() const {
    return "shuijing_kuangchang";
}

std::string ConfigInfo::getXlShuijingNewPath() const {
    return prefixed(kUserdiskData) + "/" + getXlShuijingNewDirName();
}

std::string ConfigInfo::getAutoBackupConfigPath() const {
    return prefixed("/userdisk/datacenterConfig/autoBackup.cfg");
}

std::string ConfigInfo::getHardDiskBackupConfigPath() const {
    return prefixed("/userdisk/datacenterConfig/hardDiskBackup.cfg");
}

std::string ConfigInfo::getHardDiskBackupSourceFile() const {
    return prefixed("/userdisk/datacenterConfig/hardDiskBackupSource.cfg");
}

std::string ConfigInfo::getLumoMacConfigPath() const {
    return prefixed(kConfigRoot) + "/lumoMac.cfg";
}

std::string ConfigInfo::getCopySourceFile() const {
    return prefixed(kConfigRoot) + "/copySourceFile.cfg";
}

std::string ConfigInfo::getCopyProgressConfigFile() const {
    return prefixed("/tmp/rsync_progress.log");
}

std::string ConfigInfo::getPluginProcessConfigPath() const {
    return prefixed("/tmp/pluginProcesses.cfg");
}

std::string ConfigInfo::getPluginTaskmonitorConfigPath() const {
    return prefixed("/tmp/pluginTaskmonitor.cfg");
}

std::string ConfigInfo::getCameraAutoImportConfigPath() const {
    return prefixed(kConfigRoot) + "/cameraAutoImport.cfg";
}

std::string ConfigInfo::getPTPCameraMountPoint() const {
    return prefixed("/extdisks/sdz9");
}

std::string ConfigInfo::getPTPCameraDevice() const {
    return "gphotofs";
}

std::string ConfigInfo::getPTPCameraUsbInfoDevice() const {
    return "/dev/sdz9";
}

std::string ConfigInfo::getPTPCameraExistPath() const {
    return prefixed("/tmp/sdz9.txt");
}

std::string ConfigInfo::getCamloCameraDirName() const {
    return camloCameraDirName_;
}

std::string ConfigInfo::getCamloCameraPath() const {
    return prefixed(kUserdiskData) + "/" + camloCameraDirName_;
}

std::string ConfigInfo::getCamloActionCameraName() const {
    return camloActionCameraName_;
}

std::string ConfigInfo::getXunleiTaskIntroduction() const {
    return xunleiTaskIntroduction_;
}

std::string ConfigInfo::getSystemTasksIntroduction() const {
    return systemTasksIntroduction_;
}

std::string ConfigInfo::getPrimaryDiskDevice() const {
    return primaryDiskDevice_;
}

std::vector<std::string> ConfigInfo::getIndexIgnoredFolders() const {
    return indexIgnoredFolders_;
}

}  // namespace datacenter
