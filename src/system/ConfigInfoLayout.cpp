// The parts of the storage layout that are worked out at start-up: the
// localised folder names, the primary disk device and the folders that the
// media index skips; and the backup paths, which follow a settable drive.
#include <glog/logging.h>

#include <boost/algorithm/string/predicate.hpp>
#include <fstream>

#include "storage/Directory.h"
#include "system/ConfigInfo.h"
#include "system/LocalizationHelper.h"
#include "system/RootPrefix.h"

namespace datacenter {
namespace {

const char* const kDefaultCamloCameraDirName = "摄像机监控视频";
const char* const kPrimaryDiskMarker = "PRIMARY=";

}  // namespace

ConfigInfo::ConfigInfo()
    : globalConfigPath(RootPrefix::sPath("/userdisk/datacenterConfig/config.cfg")),
      configRoot(RootPrefix::sPath("/userdisk/datacenterConfig")),
      localizationFolder_(RootPrefix::sPath("/etc/datacenterconfig/localization")),
      backupDrivePath_(RootPrefix::sPath("/userdisk/data")) {
    localization();
    init();
    readPrimaryDiskDevice();
    buildIndexIgnoredFolders();
}

void ConfigInfo::localization() {
    const LocalizationHelper helper(localizationFolder_);
    backupImageDirName_ = helper.getValue("backup_photo_dir_name");
    backupVideoDirName_ = helper.getValue("backup_movie_dir_name");
    backupAudioDirName_ = helper.getValue("backup_music_dir_name");
    backupDocumentDirName_ = helper.getValue("backup_doc_dir_name");
    backupOtherDirName_ = helper.getValue("backup_other_dir_name");
    backupCustomDirName_ = helper.getValue("backup_custom_dir_name");
    backupMark_ = helper.getValue("backup_dir_name_mark");
    extdiskDeviceName_ = helper.getValue("extdisk_device_name");
    defaultLabelForNolabelExtdisk_ = helper.getValue("default_label_for_nolabel_extdisk");
    backupDefaultLabel_ = helper.getValue("backup_harddisk_default_label");
    initCreateVideoDirName_ = helper.getValue("init_create_video_dir_name");
    initCreateImageDirName_ = helper.getValue("init_create_image_dir_name");
    initCreateAudioDirName_ = helper.getValue("init_create_audio_dir_name");
    initCreateDocDirName_ = helper.getValue("init_create_doc_dir_name");
    initCreateShareDirName_ = helper.getValue("init_create_share_dir_name");
    initCreateDownloadDirName_ = helper.getValue("init_create_download_dir_name");
    userdiskNewPrivacyDataPath_ = getUserdiskDataPath() + "/" + helper.getValue("new_privacy_data_path");
    backupRouterDiskDirName_ = helper.getValue("backup_router_disk");
    camloCameraDirName_ = helper.getValue("camlo_camera_dir_name");
    if (camloCameraDirName_.empty()) {
        camloCameraDirName_ = kDefaultCamloCameraDirName;
    }
    camloActionCameraName_ = helper.getValue("camlo_action_camera_name");
    xunleiTaskIntroduction_ = helper.getValue("taskmanager_xunlei_introduction");
    systemTasksIntroduction_ = helper.getValue("taskmanager_system_introduction");

    LOG(INFO) << "ConfigInfo::localization, backupImageDirName_ : " << backupImageDirName_
              << ", backupVideoDirName_ : " << backupVideoDirName_ << ", backupAudioDirName_ : " << backupAudioDirName_
              << ", backupDocumentDirName_ : " << backupDocumentDirName_
              << ", backupOtherDirName_ : " << backupOtherDirName_ << ", extdiskDeviceName_ : " << extdiskDeviceName_
              << ", defaultLabelForNolabelExtdisk_ : " << defaultLabelForNolabelExtdisk_
              << ", initCreateVideoDirName_ : " << initCreateVideoDirName_
              << ", initCreateImageDirName_ : " << initCreateImageDirName_
              << ", initCreateAudioDirName_ : " << initCreateAudioDirName_
              << ", initCreateDocDirName_ : " << initCreateDocDirName_
              << ", initCreateShareDirName_ : " << initCreateShareDirName_
              << ", initCreateDownloadDirName_ : " << initCreateDownloadDirName_
              << ", backupDefaultLabel_ : " << backupDefaultLabel_
              << ", userdiskNewPrivacyDataPath_ : " << userdiskNewPrivacyDataPath_
              << ", camloCameraDirName_ : " << camloCameraDirName_;
}

void ConfigInfo::readPrimaryDiskDevice() {
    std::ifstream info(RootPrefix::sPath("/tmp/userdisk_info"));
    for (std::string line; info && std::getline(info, line);) {
        if (boost::algorithm::starts_with(line, kPrimaryDiskMarker)) {
            primaryDiskDevice_ = line.substr(std::string(kPrimaryDiskMarker).size());
            LOG(INFO) << "primary disk device: " << primaryDiskDevice_;
            return;
        }
    }
    LOG(INFO) << "no primary disk info";
}

void ConfigInfo::buildIndexIgnoredFolders() {
    const std::string dataRoot = getUserdiskDataPath() + "/";
    for (const std::string& name :
         {std::string("."), std::string("cache"), std::string("$RECYCLE"), std::string("RECYCLER"),
          std::string("RECYCLED"), std::string("qierouterproxy"), backupRouterDiskDirName_, getTimecapsuleName(),
          camloCameraDirName_, getXlShuijingDirName(), getXlShuijingNewDirName()}) {
        indexIgnoredFolders_.push_back(dataRoot + name);
    }
    indexIgnoredFolders_.push_back(getUserdiskDataPath() + "/共享/.piccache");
}

std::vector<std::string> ConfigInfo::getMainDirectoriesName() const {
    return {initCreateVideoDirName_, initCreateImageDirName_, initCreateAudioDirName_,
            initCreateDocDirName_,   initCreateShareDirName_, initCreateDownloadDirName_};
}

bool ConfigInfo::isUserDataPath(const std::string& path) const {
    if (path.find("../") != std::string::npos) {
        return false;
    }
    if (boost::algorithm::starts_with(path, getUserdiskDataPath())) {
        return true;
    }
    return boost::algorithm::istarts_with(path, getExtdiskRootPath());
}

bool ConfigInfo::isRecognizableCamera(const std::string& name) const {
    return sKnownCamera.find(name) != std::string::npos;
}

std::string ConfigInfo::getBackupDrivePath() {
    boost::mutex::scoped_lock lock(backupMutex_);
    return backupDrivePath_;
}

void ConfigInfo::setBackupDrivePath(const std::string& path) {
    boost::mutex::scoped_lock lock(backupMutex_);
    backupDrivePath_ = path;
}

std::string ConfigInfo::getBackupRootPath(const std::string& key) {
    boost::mutex::scoped_lock lock(backupMutex_);
    return backupDrivePath_ + "/" + key;
}

std::string ConfigInfo::getBackupRootPath(bool& existed, const std::string& key) {
    const std::string path = getBackupRootPath(key);
    existed = Directory::sExists(path);
    return path;
}

std::string ConfigInfo::backupSubPath(bool& existed, bool create, const std::string& path) {
    existed = true;
    if (!Directory::sExists(path)) {
        existed = false;
        if (create) {
            Directory::sCreateDirectory(path);
        }
    }
    return path;
}

std::string ConfigInfo::getBackupImagePath(const std::string& key, int n) {
    return n == 1 ? getBackupRootPath(key) : getBackupRootPath(key) + "/" + backupImageDirName_;
}

std::string ConfigInfo::getBackupVideoPath(const std::string& key) {
    return getBackupRootPath(key) + "/" + backupVideoDirName_;
}

std::string ConfigInfo::getBackupAudioPath(const std::string& key) {
    return getBackupRootPath(key) + "/" + backupAudioDirName_;
}

std::string ConfigInfo::getBackupDocumentPath(const std::string& key) {
    return getBackupRootPath(key) + "/" + backupDocumentDirName_;
}

std::string ConfigInfo::getBackupOtherPath(const std::string& key) {
    return getBackupRootPath(key) + "/" + backupOtherDirName_;
}

std::string ConfigInfo::getBackupCustomPath(const std::string& key) {
    return getBackupRootPath(key) + "/" + backupCustomDirName_;
}

std::string ConfigInfo::getBackupImagePath(bool& existed, bool create, const std::string& key, int n) {
    return backupSubPath(existed, create, getBackupImagePath(key, n));
}

std::string ConfigInfo::getBackupVideoPath(bool& existed, bool create, const std::string& key) {
    return backupSubPath(existed, create, getBackupVideoPath(key));
}

std::string ConfigInfo::getBackupAudioPath(bool& existed, bool create, const std::string& key) {
    return backupSubPath(existed, create, getBackupAudioPath(key));
}

std::string ConfigInfo::getBackupDocumentPath(bool& existed, bool create, const std::string& key) {
    return backupSubPath(existed, create, getBackupDocumentPath(key));
}

std::string ConfigInfo::getBackupOtherPath(bool& existed, bool create, const std::string& key) {
    return backupSubPath(existed, create, getBackupOtherPath(key));
}

std::string ConfigInfo::getBackupCustomPath(bool& existed, bool create, const std::string& key) {
    return backupSubPath(existed, create, getBackupCustomPath(key));
}

}  // namespace datacenter
