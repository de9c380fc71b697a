// Taking a plugin off the router, and resetting an installed plugin's
// directory to what its package brought. Both walk the plugin's own
// directory, which the plugin can change under our feet: the walks run on
// directory descriptors and remove links as links.
#include <fcntl.h>
#include <glog/logging.h>

#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "Plugin/PluginManagerExtend.h"
#include "common/PluginId.h"
#include "common/Singleton.h"
#include "storage/TreeRemoval.h"
#include "system/CommonUtils.h"
#include "tools/Statistics.h"

using datacenter::TreeRemoval;

namespace {

const char* const kController = "pluginControllor";

// True for a line that names the data directory or something below it
// without climbing back out of it.
bool isBelow(const std::string& dir, const std::string& line) {
    if (line.compare(0, dir.size(), dir) != 0) {
        return false;
    }
    const std::string rest = "/" + line.substr(dir.size()) + "/";
    return rest.find("/../") == std::string::npos && rest.find("/./") == std::string::npos;
}

std::string childPath(const std::string& parent, const std::string& name) {
    return parent.empty() || parent.back() == '/' ? parent + name : parent + "/" + name;
}

void removeOrThrow(int parentFd, const std::string& name) {
    std::string error;
    if (!TreeRemoval::sRemoveAt(parentFd, name, error)) {
        throw std::runtime_error(error);
    }
}

// One step of removeFileIterative: `name` inside `parentFd` is `path`.
bool removeIterativeAt(int parentFd, const std::string& name, const std::string& path,
                       const std::map<std::string, bool>& keep) {
    const TreeRemoval::Kind kind = TreeRemoval::sKindAt(parentFd, name);
    if (kind == TreeRemoval::MISSING) {
        LOG(ERROR) << "File path '" + path + "' Do Not exist\n";
        return false;
    }
    const auto entry = keep.find(path);
    if (kind == TreeRemoval::LINK) {
        // Whatever the map says, a link is never kept in place of what was
        // recorded and never walked into.
        removeOrThrow(parentFd, name);
        return true;
    }
    if (kind == TreeRemoval::REGULAR) {
        if (entry == keep.end()) {
            removeOrThrow(parentFd, name);
        }
        return true;
    }
    if (kind != TreeRemoval::DIRECTORY) {
        return true;
    }
    if (entry == keep.end()) {
        removeOrThrow(parentFd, name);
        return true;
    }
    if (!entry->second) {
        return true;
    }
    const datacenter::UniqueFd dir =
        parentFd == AT_FDCWD ? TreeRemoval::sOpenDirectory(name) : TreeRemoval::sOpenAt(parentFd, name);
    std::vector<std::string> names;
    if (!dir.valid() || !TreeRemoval::sList(dir.get(), names)) {
        throw std::runtime_error("cannot walk " + path);
    }
    for (const std::string& child : names) {
        if (!removeIterativeAt(dir.get(), child, childPath(path, child), keep)) {
            return false;
        }
    }
    return true;
}

}  // namespace

ApiErrorCode PluginManager::uninstallPlugin(const std::string& id) {
    if (undeletableIds_.count(id) != 0) {
        return API_BUILTIN_NOT_REMOVABLE;
    }
    if (id.empty()) {
        return API_EMPTY_ARGUMENT;
    }
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "uninstallPlugin: invalid plugin id '" << id << "'";
        return API_FAILED;
    }
    const boost::shared_ptr<InstallAction> action = currentAction();
    if (action && action->getPluginInfo().id == id && action->isInstalling()) {
        return API_INSTALL_IN_PROGRESS;
    }
    try {
        CommonUtils::sCallSystem(std::string(kController) + " --uninstall " + id);
        const ApiErrorCode disabled = changePluginStatus(id, datacenter::DISABLED);
        if (disabled != API_SUCCESS) {
            LOG(ERROR) << "uninstallFromLocal changePluginStatus ERROR, code:" << disabled;
            return disabled;
        }
        CommonUtils::sCallSystem(std::string(kController) + " -d " + id);
        {
            const std::unique_ptr<AbsPlugin> plugin(createPlugin(id));
            if (plugin && !plugin->removePluginData()) {
                std::string message;
                if (umountRemoveChrootFolder(id, message) != API_SUCCESS) {
                    LOG(ERROR) << "uninstallFromLocal umountFolder:" << message;
                    return API_FAILED;
                }
            }
        }
        if (!Singleton<PluginStorageManager>::instance()->deleteInStorage(id)) {
            return API_FAILED;
        }
        removeEtcDirectory(id);
        const ApiErrorCode cleaned = cleanPluginImpl(id);
        if (cleaned != API_SUCCESS) {
            LOG(ERROR) << "uninstallPlugin failed: clean plugin";
            return cleaned;
        }
        datacenter::PluginManagerExtend::sProcessFakePluginsWhenInstall(id);
        LOG(INFO) << "uninstallPlugin succeed!";
        Statistics::statOnce("plugin_uninstall", id);
        updatePluginListToServer();
        return API_SUCCESS;
    } catch (const std::exception& e) {
        LOG(ERROR) << "PluginManager::uninstallPlugin fail: " << e.what();
        return API_GENERAL_FAILURE;
    }
}

void PluginManager::removeEtcDirectory(const std::string& id) const {
    const datacenter::UniqueFd dir = TreeRemoval::sOpenDirectory(sGetPluginDataPath(id));
    std::string error;
    if (dir.valid() && !TreeRemoval::sRemoveAt(dir.get(), "etc", error)) {
        LOG(ERROR) << "uninstallPlugin: " << error;
    }
}

ApiErrorCode PluginManager::cleanPlugin(const std::string& id) {
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "cleanPlugin: invalid plugin id '" << id << "'";
        return API_FAILED;
    }
    CommonUtils::sCallSystem(std::string(kController) + " -k " + id);
    const std::string dir = sGetPluginDataPath(id);
    LOG(INFO) << "plugin install dir is " << dir;
    std::ifstream record(dir + InstallAction::sInitFilesRecordName);
    if (!record) {
        LOG(ERROR) << "File(read) Open error " << API_INIT_FILES_RECORD_FAILED;
        return API_INIT_FILES_RECORD_FAILED;
    }
    std::map<std::string, bool> keep = InstallAction::getIgnoreFiles(dir);
    for (std::string line; std::getline(record, line);) {
        if (isBelow(dir, line)) {
            keep[line] = true;
        }
    }
    if (!removeFileIterative(dir, keep)) {
        LOG(ERROR) << "remove file error, error code is " << API_REMOVE_WALK_FAILED;
        return API_REMOVE_WALK_FAILED;
    }
    CommonUtils::sCallSystem(std::string(kController) + " -b " + id);
    return API_SUCCESS;
}

bool PluginManager::removeFileIterative(const std::string& path, const std::map<std::string, bool>& keep) const {
    try {
        // The start path is the caller's; below it nothing is followed. A
        // trailing "/" would make the system follow a link in its last part.
        std::string name = path;
        while (name.size() > 1 && name.back() == '/') {
            name.pop_back();
        }
        return removeIterativeAt(AT_FDCWD, name, path, keep);
    } catch (const std::exception& e) {
        LOG(ERROR) << e.what() << "\n";
        std::cout << e.what() << std::endl;
        return false;
    }
}

void PluginManager::cleanPluginWhenFailed(const std::string&) {}
