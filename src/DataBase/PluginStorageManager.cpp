#include "DataBase/PluginStorageManager.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/PluginId.h"
#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/PlainFile.h"
#include "storage/PluginTree.h"
#include "storage/UniqueFd.h"
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

// A manifest is a few settings; more than this is not one.
const size_t kMaxManifestBytes = 1024 * 1024;

std::string withSingleSlashes(std::string path) {
    for (std::string::size_type at; (at = path.find("//")) != std::string::npos;) {
        path.erase(at, 1);
    }
    return path;
}

// The store folder "app_infos", opened without following a link: every
// write of the store happens inside this very folder.
datacenter::UniqueFd openStoreFolder() {
    datacenter::PluginTree root(datacenter::planformetPluginRootPath());
    datacenter::UniqueFd folder(root.openDirectory("app_infos", false, 0));
    if (!folder.valid()) {
        LOG(ERROR) << "the manifest store cannot be opened: " << root.lastError();
    }
    return folder;
}

// Copies `source` into the store as the manifest of `id` so that readers of
// the store see either the old manifest or the whole new one: written to a
// temporary file of the store folder, flushed and renamed over it there.
// Returns the copy result (0 copied, -1 failure).
int copyManifestIntoStore(const std::string& source, const std::string& id) {
    std::string text;
    std::string why = "the store cannot be opened";
    const datacenter::UniqueFd store = openStoreFolder();
    if (!store.valid() || !datacenter::PlainFile::sRead(source, kMaxManifestBytes, text, why)) {
        LOG(ERROR) << "cannot store the manifest of " << id << " from " << source << ": " << why;
        return datacenter::File::sCopyFailed;
    }
    const bool written = datacenter::File::sWriteAtomicallyAt(
        store.get(), id + PluginStorageManager::sManifestFileExten,
        [&text](FILE* stream) { return fwrite(text.data(), 1, text.size(), stream) == text.size(); }, 0777);
    if (!written) {
        LOG(ERROR) << "cannot store the manifest of " << id << ": " << strerror(errno);
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
    boost::mutex::scoped_lock lock(mutex_);
    refreshLocked();
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
    Stamp stamp;
    return readManifest(path, info, stamp) == ReadResult::Read;
}

void PluginStorageManager::addToList(const std::string& path) {
    boost::mutex::scoped_lock lock(mutex_);
    PluginInfo info;
    addLocked(path, info);
}

std::map<std::string, PluginInfo> PluginStorageManager::getPluginInfos() {
    boost::mutex::scoped_lock lock(mutex_);
    refreshLocked();
    return pluginInfos_;
}

std::map<std::string, PluginInfo> PluginStorageManager::getListablePluginInfos() {
    return getPluginInfos();
}

PluginInfo PluginStorageManager::getListablePluginInfoById(const std::string& id) {
    return getPluginInfoById(id);
}

PluginInfo PluginStorageManager::getPluginInfoById(const std::string& id) {
    boost::mutex::scoped_lock lock(mutex_);
    refreshLocked();
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
    // The plugin's own manifest is written inside the "etc" folder of its
    // tree that was checked, never through a link the plugin put there.
    datacenter::PluginTree tree(datacenter::planformetPluginRootPath() + id);
    const datacenter::UniqueFd etc(tree.openDirectory("etc", false, 0));
    if (!etc.valid()) {
        LOG(ERROR) << "PluginStorageManager insertToStorage: " << tree.lastError();
        return false;
    }
    ConfigInfo::sGetInstance()->setConfigToFile(datacenter::PluginTree::sPinnedPath(etc.get(), "manifest"),
                                                sManifestInstallTimeKey, CommonUtils::sGetNowTimeStamp());
    const std::string stored = getManifestFilePath(id);
    // The plugin's own manifest is read from that same folder.
    const bool own = withSingleSlashes(manifestPath) ==
                     withSingleSlashes(datacenter::planformetPluginRootPath() + id + "/etc/manifest");
    const int copied =
        copyManifestIntoStore(own ? datacenter::PluginTree::sPinnedPath(etc.get(), "manifest") : manifestPath, id);
    if (copied != datacenter::File::sCopyOk) {
        return false;
    }
    boost::mutex::scoped_lock lock(mutex_);
    addLocked(stored, info);
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
    const datacenter::UniqueFd store = openStoreFolder();
    if (!store.valid()) {
        return false;
    }
    ConfigInfo::sGetInstance()->setConfigToFile(
        datacenter::PluginTree::sPinnedPath(store.get(), id + sManifestFileExten), key, value);
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
    ownerOf_.erase(id);
    const std::string path = getManifestFilePath(id);
    entries_.erase(path);
    LOG(INFO) << "delete file : " << path;
    const bool existed = datacenter::File::sExists(path);
    if (existed) {
        datacenter::File::sDelete(path);
        // Gone for good only once the store folder is on disk.
        const datacenter::UniqueFd store = openStoreFolder();
        if (store.valid()) {
            ::fsync(store.get());
        }
    }
    return existed;
}

bool PluginStorageManager::updateToStorage(const PluginInfo& /*info*/) {
    return false;
}

void PluginStorageManager::resetStorage() {}
