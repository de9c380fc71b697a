#include "DataBase/PluginStorageManager.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <cstdio>
#include <cstring>

#include "common/PluginId.h"
#include "storage/Directory.h"
#include "storage/File.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

using datacenter::ConfigInfo;
using datacenter::PluginInfo;

const std::string PluginStorageManager::sManifestFileExten = ".manifest";
const std::string PluginStorageManager::sManifestSdkTokenKey = "sdk_token";
const std::string PluginStorageManager::sManifestStatusKey = "status";
const std::string PluginStorageManager::sManifestInstallTimeKey = "install_time";
const std::string PluginStorageManager::sUpdatedFile = "hasUpdated";

namespace {

// The built-in welcome page keeps its status outside its manifest.
const char* const kWelcomePluginId = "5017400000000000005";
// Where a plugin's own manifest lies below its data directory.
const char* const kPluginManifestFileName = "/etc/manifest";

// Modification time of the store directory in seconds; 0 when unknown.
time_t modificationTime(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

// Reads the remaining keys of a manifest into `info`, in the store's fixed order.
void readManifestKeys(ConfigInfo* config, const std::string& path, PluginInfo& info) {
    auto text = [&](const char* key) { return config->getConfigFromFile(path, key); };
    info.name = text("name");
    info.smallIcon = text("small_icon");
    info.largeIcon = text("large_icon");
    info.developer = text("developer");
    info.devId = text("dev_id");
    info.version = text("version");
    info.introduction = text("introduction");
    info.controlUrl = text("control_url");
    info.supportedRomVersion = text("supported_rom_version");
    info.sdkToken = text(PluginStorageManager::sManifestSdkTokenKey.c_str());
    if (info.id != kWelcomePluginId) {
        const std::string status = text(PluginStorageManager::sManifestStatusKey.c_str());
        if (!status.empty()) {
            info.status = static_cast<datacenter::PluginStatus>(boost::lexical_cast<int32_t>(status));
        }
    }
    const std::string useStatus = text("use_status");
    if (!useStatus.empty()) {
        info.useStatus = static_cast<datacenter::PluginUseStatus>(boost::lexical_cast<int32_t>(useStatus));
    }
    info.binaryName = text("binary_name");
    const std::string sdkLevel = text("sdk_level");
    if (!sdkLevel.empty()) {
        info.sdkLevel = boost::lexical_cast<int32_t>(sdkLevel);
    }
    info.capabilityList = config->getListFromFile(path, "capability_list");
    info.modelList = config->getListFromFile(path, "model_list");
    info.marketIcon = text("market_icon");
    info.installedIcon = text("installed_icon");
    info.detailImage = text("detail_image");
    info.authorizeId = text("authorize_id");
    const std::string installTime = text(PluginStorageManager::sManifestInstallTimeKey.c_str());
    if (!installTime.empty()) {
        info.installTime = boost::lexical_cast<int32_t>(installTime);
    }
}

// Copies `source` to `target` so that readers of the store see either the
// old manifest or the whole new one: the copy goes to a hidden file beside
// the target, is flushed to disk and renamed over it. Returns the copy result
// (0 copied, -1 failure, -2 no space, 1 interrupted).
int copyManifestIntoStore(const std::string& source, const std::string& target, const std::string& storeDir,
                          const std::string& id) {
    const std::string temporary = storeDir + ".incoming-" + id + PluginStorageManager::sManifestFileExten;
    const int copied = datacenter::File::sRawCopyFile(source, temporary);
    if (copied != datacenter::File::sCopyOk) {
        datacenter::File::sDelete(temporary);
        return copied;
    }
    const int fd = open(temporary.c_str(), O_RDONLY);
    const bool flushed = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0) {
        close(fd);
    }
    if (!flushed || rename(temporary.c_str(), target.c_str()) != 0) {
        LOG(ERROR) << "cannot store manifest " << target << ": " << strerror(errno);
        datacenter::File::sDelete(temporary);
        return datacenter::File::sCopyFailed;
    }
    return datacenter::File::sCopyOk;
}

}  // namespace

std::string getStateonStr() {
    return "on";
}

std::string getStateoffStr() {
    return "off";
}

PluginStorageManager::PluginStorageManager() : manifestRootPath(sGetManifestRootPath()), lastModified(0) {
    for (const std::string& entry : datacenter::Directory::sListEntries(manifestRootPath)) {
        addToList(entry);
    }
}

PluginStorageManager::~PluginStorageManager() = default;

std::string PluginStorageManager::sGetManifestRootPath() {
    const std::string root = datacenter::planformetPluginRootPath() + "/app_infos/";
    if (!datacenter::File::sExists(root)) {
        datacenter::Directory::sCreateDirectory(root);
    }
    return root;
}

std::string PluginStorageManager::getManifestFilePath(const std::string& id) {
    return sGetManifestRootPath() + id + sManifestFileExten;
}

bool PluginStorageManager::isValidManifest(const std::string& path) {
    if (datacenter::Directory::sIsDirectory(path)) {
        return false;
    }
    const std::string::size_type slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::string::size_type dot = name.rfind('.');
    return dot != std::string::npos && name.substr(dot) == sManifestFileExten;
}

bool PluginStorageManager::getPluginInfoFromManifest(const std::string& path, PluginInfo& info) {
    if (!isValidManifest(path)) {
        LOG(INFO) << path << " is not valid manifest";
        return false;
    }
    ConfigInfo* config = ConfigInfo::sGetInstance();
    info.id = config->getConfigFromFile(path, "plugin_id");
    if (info.id.empty()) {
        LOG(INFO) << path << " manifest dose not have Plugin ID!!!!!!";
        datacenter::File::sDelete(path);
        return false;
    }
    if (!datacenter::isSafePluginId(info.id)) {
        LOG(INFO) << path << " is not valid manifest";
        return false;
    }
    readManifestKeys(config, path, info);
    return true;
}

bool PluginStorageManager::readEntry(const std::string& path, PluginInfo& info) {
    // A number that does not convert spoils only its own manifest: the rest
    // of the store stays listed.
    try {
        return getPluginInfoFromManifest(path, info) && !info.id.empty();
    } catch (const boost::bad_lexical_cast& e) {
        LOG(ERROR) << path << " has a value that is not a number: " << e.what();
    }
    return false;
}

void PluginStorageManager::addToList(const std::string& path) {
    boost::mutex::scoped_lock lock(mutex_);
    PluginInfo info;
    if (readEntry(path, info)) {
        pluginInfos_[info.id] = info;
    }
}

std::map<std::string, PluginInfo> PluginStorageManager::getPluginInfos() {
    boost::mutex::scoped_lock lock(mutex_);
    manifestRootPath = sGetManifestRootPath();
    if (!datacenter::Directory::sIsDirectory(manifestRootPath)) {
        pluginInfos_.clear();
        return pluginInfos_;
    }
    const time_t modified = modificationTime(manifestRootPath);
    const std::string markFile = manifestRootPath + sUpdatedFile;
    if (modified > lastModified || datacenter::File::sExists(markFile)) {
        datacenter::File::sDelete(markFile);
        lastModified = modified;
        pluginInfos_.clear();
        for (const std::string& entry : datacenter::Directory::sListEntries(manifestRootPath)) {
            PluginInfo info;
            if (readEntry(entry, info)) {
                pluginInfos_[info.id] = info;
            }
        }
    }
    return pluginInfos_;
}

PluginInfo PluginStorageManager::getPluginInfoById(const std::string& id) {
    getPluginInfos();
    boost::mutex::scoped_lock lock(mutex_);
    LOG(INFO) << "getPluginInfoById id is " << id;
    if (id.empty()) {
        LOG(INFO) << "Plugin Storage get plugin by id failed, id is empty!";
        return PluginInfo();
    }
    const auto found = pluginInfos_.find(id);
    return found == pluginInfos_.end() ? PluginInfo() : found->second;
}

bool PluginStorageManager::insertToStorage(const std::string& id, const std::string& manifestPath, PluginInfo& info) {
    LOG(INFO) << "insert to storage, file path is " << manifestPath << " pluginId is " << id;
    if (id.empty() || manifestPath.empty()) {
        LOG(INFO) << "PluginStorageManager insertToStorage failed: ID is empty!";
        return false;
    }
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "PluginStorageManager invalid plugin id: " << id;
        return false;
    }
    const std::string ownManifest = datacenter::planformetPluginRootPath() + id + "/" + kPluginManifestFileName;
    ConfigInfo::sGetInstance()->setConfigToFile(ownManifest, sManifestInstallTimeKey, CommonUtils::sGetNowTimeStamp());
    const std::string stored = getManifestFilePath(id);
    const int copied = copyManifestIntoStore(manifestPath, stored, sGetManifestRootPath(), id);
    if (copied != datacenter::File::sCopyOk) {
        return false;
    }
    // The stored copy has been checked by the installer already; a copy that
    // still does not read is simply not listed.
    readEntry(stored, info);
    addToList(stored);
    return true;
}

bool PluginStorageManager::writeKeyToStorage(const std::string& id, const std::string& key, const std::string& value,
                                             const char* caller) {
    if (id.empty()) {
        LOG(INFO) << "PluginStorageManager " << caller << " ID is empty!";
        return false;
    }
    const std::string path = getManifestFilePath(id);
    if (!datacenter::isSafePluginId(id) || !datacenter::File::sExists(path)) {
        LOG(INFO) << caller << " not Exist , id is " << id;
        return false;
    }
    ConfigInfo::sGetInstance()->setConfigToFile(path, key, value);
    return true;
}

bool PluginStorageManager::updateStatusToStorage(const std::string& id, datacenter::PluginStatus status) {
    if (!writeKeyToStorage(id, sManifestStatusKey, std::to_string(static_cast<int32_t>(status)),
                           "updateStatusToStorage")) {
        return false;
    }
    boost::mutex::scoped_lock lock(mutex_);
    const auto found = pluginInfos_.find(id);
    if (found != pluginInfos_.end()) {
        found->second.status = status;
    }
    return true;
}

bool PluginStorageManager::updateUseStatusToStorage(const std::string& id, datacenter::PluginUseStatus useStatus) {
    if (!writeKeyToStorage(id, "use_status", std::to_string(static_cast<int32_t>(useStatus)),
                           "updateStatusToStorage")) {
        return false;
    }
    boost::mutex::scoped_lock lock(mutex_);
    const auto found = pluginInfos_.find(id);
    if (found != pluginInfos_.end()) {
        found->second.useStatus = useStatus;
    }
    return true;
}

bool PluginStorageManager::deleteInStorage(const std::string& id) {
    if (id.empty()) {
        LOG(INFO) << "PluginDB deleteInStorage failed: ID is empty!";
        return false;
    }
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "PluginStorageManager invalid plugin id: " << id;
        return false;
    }
    boost::mutex::scoped_lock lock(mutex_);
    pluginInfos_.erase(id);
    const std::string path = getManifestFilePath(id);
    LOG(INFO) << "delete file : " << path;
    const bool existed = datacenter::File::sExists(path);
    if (existed) {
        datacenter::File::sDelete(path);
    }
    return existed;
}

bool PluginStorageManager::updateToStorage(const PluginInfo& /*info*/) {
    return false;
}

void PluginStorageManager::resetStorage() {}
