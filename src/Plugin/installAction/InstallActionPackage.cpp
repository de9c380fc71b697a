// The package steps of the install pipeline: unpacking, compatibility
// checks, the installation data and the record of the plugin's files.
#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "Plugin/TimeMachineMigration.h"
#include "Plugin/installAction/InstallAction.h"
#include "Plugin/installAction/PackageFiles.h"
#include "Plugin/installAction/UpgradeBackup.h"
#include "common/DecimalNumber.h"
#include "common/Singleton.h"
#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/PlainFile.h"
#include "storage/PluginTree.h"
#include "storage/UniqueFd.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/RootPrefix.h"

namespace {

// A manifest is a few settings; more than this is not one.
const size_t kMaxManifestBytes = 1024 * 1024;

// A key of `manifest`, by default the plugin's own "etc/manifest".
std::string manifestValue(const std::string& id, const std::string& key, const std::string& manifest) {
    return datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(
        manifest.empty() ? PluginManager::sGetPluginManifestPath(id) : manifest, key);
}

// An SDK level: empty means 1; text that is not a whole number is no level at all.
bool parseLevel(const std::string& text, int32_t& level) {
    level = 1;
    return text.empty() || datacenter::DecimalNumber::sParse(text, level);
}

// Creates "etc/plugin_config" for the plugin to write its settings to, open to
// the plugin (0777); a link or special file planted there is left alone.
void createPluginConfig(const std::string& id) {
    datacenter::PluginTree tree(PluginManager::sGetPluginDataPath(id));
    const std::string name = PluginManager::sPluginConfigFileDirectory.substr(1) + PluginManager::sPluginConfigFileName;
    const int fd = tree.openFile(name, O_WRONLY | O_CREAT | O_APPEND, 0777);
    if (fd < 0) {
        LOG(ERROR) << "installPackage: cannot create " << name << ": " << tree.lastError();
        return;
    }
    fchmod(fd, 0777);
    close(fd);
}

}  // namespace

ApiErrorCode InstallAction::putPackageToTmpDir(const std::string& package, std::string& tmpDir, std::string& zipPath) {
    return PackageFiles::sPutPackageToTmpDir(package, tmpDir, zipPath);
}

std::string InstallAction::getIdFromPackage(const std::string& zipPath) {
    return PackageFiles::sGetIdFromPackage(zipPath);
}

bool InstallAction::unzip(std::string zipPath, std::string destDir) {
    return PackageFiles::sUnzip(zipPath, destDir, backup_.get());
}

std::string InstallAction::keptManifestName() const {
    return InstallAction::sLocalInstallTmpDir + pluginId_ + ".manifest";
}

bool InstallAction::keepPayloadManifest() {
    std::string text;
    if (payload_.valid()) {
        text = PackageFiles::sReadPayloadManifest(payload_.fd(), payload_.size(), payloadLabel());
    } else {
        text = PackageFiles::sReadPackageManifest(packagePath_);
    }
    datacenter::PluginTree root(PluginManager::sGetPluginRootPath());
    const datacenter::UniqueFd kept(text.empty() || PackageFiles::sStagingDir().empty()
                                        ? -1
                                        : root.openFile(keptManifestName(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    if (!kept.valid() || write(kept.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        LOG(ERROR) << "installPlugin: the payload's manifest cannot be kept: "
                   << (text.empty() ? std::string("it has none") : root.lastError());
        return false;
    }
    return true;
}

void InstallAction::dropKeptManifest() {
    if (!pluginId_.empty()) {
        datacenter::PluginTree root(PluginManager::sGetPluginRootPath());
        root.remove(keptManifestName());
    }
}

ApiErrorCode InstallAction::unzipFile() {
    if (!keepPayloadManifest()) {
        return API_UNZIP_FAILED;
    }
    const std::string dataDir = PluginManager::sGetPluginDataPath(pluginId_);
    const bool unpacked = payload_.valid() ? PackageFiles::sUnzipPayload(payload_.fd(), payload_.size(), payloadLabel(),
                                                                         dataDir, backup_.get())
                                           : unzip(packagePath_, dataDir);
    if (backup_) {
        backup_->sync();
    }
    if (!unpacked) {
        return API_UNZIP_FAILED;
    }
    // The manifest goes into place inside the plugin's own tree, whatever the plugin planted there.
    datacenter::PluginTree tree(dataDir);
    const bool noted = !backup_ || (backup_->beforeDirectory("etc") && backup_->beforeFile("etc/manifest"));
    const int etc = noted ? tree.openDirectory("etc", true, 0777) : -1;
    if (etc >= 0) {
        close(etc);
    }
    if (etc < 0 || !tree.rename("manifest", "etc/manifest")) {
        const int err = errno != 0 ? errno : EINVAL;
        LOG(ERROR) << "installPlugin sMove file error " << err;
        LOG(ERROR) << "installPlugin: " << (tree.isOpen() ? tree.lastError() : dataDir + " cannot be opened");
        return API_UNZIP_MOVE_FAILED;
    }
    return API_SUCCESS;
}

bool InstallAction::sCheckSdkLevel(const std::string& id, const std::string& manifest) {
    const std::string levelFile = datacenter::RootPrefix::sPath(PluginManager::sSdkLevelFilePath);
    std::string romText;
    if (datacenter::File::sExists(levelFile)) {
        romText = datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(levelFile, "sdk_level");
    }
    int32_t romLevel = 1;
    int32_t pluginLevel = 1;
    if (!parseLevel(romText, romLevel) || !parseLevel(manifestValue(id, "sdk_level", manifest), pluginLevel)) {
        LOG(ERROR) << "appid is " << id << ": sdk_level is not a number";
        return false;
    }
    LOG(INFO) << "appid is " << id << "\n rom level is " << romLevel << "\nplugin level is " << pluginLevel;
    return romLevel >= pluginLevel;
}

bool InstallAction::sCheckRomType(const std::string& id, const std::string& manifest, const std::string& shown) {
    const std::string rom = manifestValue(id, "supported_rom", manifest);
    if (rom == sRomType) {
        return true;
    }
    std::cout << "plugin rom string is " << rom << std::endl;
    std::cout << "router rom string is " << sRomType << std::endl;
    std::cout << "path is "
              << (!shown.empty()     ? shown
                  : manifest.empty() ? PluginManager::sGetPluginManifestPath(id)
                                     : manifest)
              << std::endl;
    return false;
}

bool InstallAction::sCheckRomVersion(const std::string& id, const std::string& manifest) {
    const std::string version = manifestValue(id, "supported_rom_version", manifest);
    if (version.empty()) {
        return true;
    }
    LOG(INFO) << "check supported rom: " << version;
    return CommonUtils::sCheckIsLowerVersionThanCurrentRom(version);
}

ApiErrorCode InstallAction::sCheckCompatibility(const std::string& id, const std::string& manifest,
                                                const std::string& shown) {
    // The store reads this number with the same reader: a package whose
    // record it could not list is not installed.
    const std::string useStatus = manifestValue(id, "use_status", manifest);
    int32_t ignored = 0;
    if (!useStatus.empty() && !datacenter::DecimalNumber::sParse(useStatus, ignored)) {
        LOG(ERROR) << "appid is " << id << ": use_status is not a whole number of 32 bits";
        return API_UNZIP_FAILED;
    }
    if (!sCheckSdkLevel(id, manifest)) {
        return API_SDK_LEVEL_TOO_LOW;
    }
    if (!sCheckRomType(id, manifest, shown)) {
        return API_FIRMWARE_TYPE_UNSUPPORTED;
    }
    if (!sCheckRomVersion(id, manifest)) {
        LOG(ERROR) << "check rom version fail: row verion too low";
        return API_FIRMWARE_TOO_OLD;
    }
    if (manifestValue(id, "plugin_id", manifest) != id) {
        return API_PLUGIN_ID_MISMATCH;
    }
    return API_SUCCESS;
}

ApiErrorCode InstallAction::checkPackage() {
    // The texts name the plugin's manifest, where the contract reads from.
    return sCheckCompatibility(pluginId_, PluginManager::sGetPluginRootPath() + keptManifestName(),
                               PluginManager::sGetPluginManifestPath(pluginId_));
}

ApiErrorCode InstallAction::installPackage() {
    datacenter::ConfigInfo* config = datacenter::ConfigInfo::sGetInstance();
    // The manifest is written inside the "etc" folder checked here, whatever
    // the plugin makes of its names meanwhile.
    datacenter::PluginTree tree(PluginManager::sGetPluginDataPath(pluginId_));
    const datacenter::UniqueFd etc(tree.openDirectory("etc", false, 0));
    if (!etc.valid()) {
        LOG(ERROR) << "installPackage: the plugin's etc folder cannot be used: " << tree.lastError();
        return API_UNZIP_MOVE_FAILED;
    }
    // Token, status and time go into the kept copy of the verified manifest;
    // the store record and the plugin's own copy are made from it.
    datacenter::PluginTree root(PluginManager::sGetPluginRootPath());
    const std::string kept = root.pinnedPath(keptManifestName());
    config->setConfigToFile(kept, PluginStorageManager::sManifestSdkTokenKey, PluginManager::sNewSdkToken());
    config->setConfigToFile(kept, PluginStorageManager::sManifestStatusKey,
                            std::to_string(static_cast<int>(datacenter::INSTALLING)));
    config->setConfigToFile(kept, PluginStorageManager::sManifestInstallTimeKey, CommonUtils::sGetNowTimeStamp());
    datacenter::PluginInfo record;
    record.id = pluginId_;
    Singleton<PluginStorageManager>::instance()->insertToStorage(pluginId_, kept, record);
    std::string text;
    std::string why;
    if (!datacenter::PlainFile::sRead(kept, kMaxManifestBytes, text, why) ||
        !datacenter::File::sWriteAtomically(datacenter::PluginTree::sPinnedPath(etc.get(), "manifest"), text)) {
        LOG(ERROR) << "installPackage: the plugin's manifest cannot be written: " << why;
    }
    dropKeptManifest();
    createPluginConfig(pluginId_);
    // An upgrade keeps what the migration may move with its backup first: a
    // rollback, also the one after a crash, moves it back.
    if (backup_ && pluginId_ == TimeMachineInfo::getPluginId() &&
        !backup_->noteTimeMachine(TimeMachineMove::sBefore().text())) {
        return API_GENERAL_FAILURE;
    }
    Singleton<PluginManager>::instance()->moveTimeMachineData(pluginId_);
    return API_SUCCESS;
}

std::map<std::string, bool> InstallAction::getIgnoreFiles(const std::string& dataDir) {
    return PackageFiles::sGetIgnoreFiles(dataDir);
}

bool InstallAction::getFilesPath(const std::string& path, std::vector<std::string>& files,
                                 const std::map<std::string, bool>& ignore) {
    return PackageFiles::sGetFilesPath(path, files, ignore);
}

ApiErrorCode InstallAction::recordInitFiles() {
    const std::string dataDir = PluginManager::sGetPluginDataPath(pluginId_);
    std::cout << "plugin install dir is " << dataDir << std::endl;
    LOG(INFO) << "plugin install dir is " << dataDir;
    size_t count = 0;
    const ApiErrorCode code = sWriteInitFilesRecord(pluginId_, count);
    if (code != API_SUCCESS) {
        return code;
    }
    // Only once the record exists: a record that cannot be written ends the step without a count.
    std::cout << "fileLength = " << count << std::endl;
    LOG(INFO) << "fileLength = " << count;
    LOG(INFO) << "Record init files suc!\n";
    return API_SUCCESS;
}

ApiErrorCode InstallAction::sWriteInitFilesRecord(const std::string& id) {
    size_t count = 0;
    return sWriteInitFilesRecord(id, count);
}

ApiErrorCode InstallAction::sWriteInitFilesRecord(const std::string& id, size_t& count) {
    const std::string dataDir = PluginManager::sGetPluginDataPath(id);
    std::vector<std::string> files;
    if (dataDir.empty() || !PackageFiles::sGetFilesPath(dataDir, files, PackageFiles::sGetIgnoreFiles(dataDir))) {
        LOG(ERROR) << "record Init Files error , error code is " << API_CONFIG_FILE_OPEN_FAILED;
        return API_CONFIG_FILE_OPEN_FAILED;
    }
    const std::string recordPath = dataDir + sInitFilesRecordName;
    datacenter::PluginTree tree(dataDir);
    std::string text;
    bool ownPathListed = false;
    for (const std::string& file : files) {
        text += file + "\n";
        ownPathListed = ownPathListed || file == recordPath;
    }
    if (!ownPathListed) {
        text += recordPath + "\n";
    }
    if (!tree.isOpen() || !datacenter::File::sWriteAtomically(tree.pinnedPath(sInitFilesRecordName), text)) {
        LOG(ERROR) << "record Init Files error , error code is " << API_INIT_FILES_RECORD_FAILED;
        return API_INIT_FILES_RECORD_FAILED;
    }
    count = files.size();
    return API_SUCCESS;
}

ApiErrorCode InstallAction::savePluginPackage() {
    const std::string archive = PackageFiles::sPackageArchiveDir() + pluginId_;
    if (!pluginId_.empty() && packagePath_ != archive) {
        datacenter::File::sDelete(archive);
        datacenter::File::sMove(packagePath_, archive);
    }
    return API_SUCCESS;
}
