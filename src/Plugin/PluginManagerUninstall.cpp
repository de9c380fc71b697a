// Taking a plugin off the router. The plugin's directory is emptied down to
// its skeleton only once nothing is mounted below it any more: the unmount
// script's status says nothing, so the mount table is asked, and a mount that
// remains stops the uninstallation before anything is deleted.
#include <glog/logging.h>

#include <memory>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "Plugin/PluginManagerExtend.h"
#include "common/PluginId.h"
#include "common/Singleton.h"
#include "storage/Durability.h"
#include "storage/TreeRemoval.h"
#include "system/CommonUtils.h"
#include "system/DeviceMountInfo.h"
#include "system/ProcessOwnership.h"
#include "tools/Statistics.h"

using datacenter::TreeRemoval;

namespace {

const char* const kController = "pluginControllor";

// Logs and returns true when anything is still mounted at or below `dir`
// (or when the mount table cannot tell).
bool stillMounted(const std::string& dir) {
    bool readable = false;
    const std::vector<std::string> points = datacenter::DeviceMountInfo::sGetMountPointsBelow(dir, readable);
    if (!readable) {
        LOG(ERROR) << "uninstallPlugin: the mount table cannot be read; nothing below " << dir << " is deleted";
        return true;
    }
    for (const std::string& point : points) {
        LOG(ERROR) << "uninstallPlugin: still mounted after the unmount step: " << point
                   << "; nothing of the plugin is deleted";
    }
    return !points.empty();
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
        // A plugin disabled before may have left a daemon running.
        if (datacenter::ProcessOwnership::sStopAll(id, sGetPluginDataPath(id)) != 0) {
            LOG(ERROR) << "uninstallPlugin: plugin " << id << " could not be stopped";
            return API_FAILED;
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
        if (stillMounted(sGetPluginDataPath(id))) {
            return API_FAILED;
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
        if (!datacenter::Durability::sCommitPath(sGetPluginRootPath().c_str())) {
            return API_FAILED;
        }
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

void PluginManager::cleanPluginWhenFailed(const std::string&) {}
