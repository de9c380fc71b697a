// Switching plugins on and off. All changes of all plugins in the process run
// one after another under statusMutex_, commands and process kills included.
#include <glog/logging.h>

#include <memory>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/PluginId.h"
#include "common/Singleton.h"
#include "storage/File.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

namespace {

const char* const kPushTvAppActive = "pushClient {\"type\":31} \"\" \"\" 1";
const char* const kPushTvAppEnabled = "pushClient {\"type\":32} \"\" \"\" 1";

}  // namespace

ApiErrorCode PluginManager::changePluginStatus(const std::string& id, datacenter::PluginStatus status) {
    LOG(INFO) << "PluginManager::changePluginStatus 0 id  " << id << " to " << static_cast<int>(status);
    // The id names the plugin's manifest and reaches its start and stop commands.
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "PluginManager::changePluginStatus: invalid plugin id '" << id << "'";
        return API_NO_MANIFEST;
    }
    try {
        const std::string manifest = Singleton<PluginStorageManager>::instance()->getManifestFilePath(id);
        if (!datacenter::File::sExists(manifest)) {
            return API_NO_MANIFEST;
        }
        boost::mutex::scoped_lock lock(statusMutex_);
        return changePluginStatusImpl(id, status);
    } catch (const std::exception& e) {
        LOG(ERROR) << "PluginManager::changePluginStatus fail: " << e.what();
        return API_STATUS_CHANGE_EXCEPTION;
    }
}

ApiErrorCode PluginManager::changePluginStatusImpl(const std::string& id, datacenter::PluginStatus status) {
    const datacenter::PluginInfo info = Singleton<PluginStorageManager>::instance()->getPluginInfoById(id);
    if (info.status == status) {
        LOG(INFO) << "PluginManager::changePluginStatus   nochange  ";
        return API_SUCCESS;
    }
    std::unique_ptr<AbsChangeStatus> change;
    const auto creator = statusFactory_.find(status);
    if (creator != statusFactory_.end()) {
        zkfactory::AssertPointer(creator->second);
        change.reset(creator->second());
        if (!change) {
            LOG(ERROR) << "PluginManager::changePluginStatus deref null pointer ";
            return API_GENERAL_FAILURE;
        }
    } else {
        change.reset(zkfactory::create<AbsChangeStatus, InvalidActionStatus>());
    }
    const std::unique_ptr<AbsPlugin> plugin(createPlugin(id));
    return change->accept(plugin);
}

ApiErrorCode PluginManager::enableLumoapp() {
    LOG(INFO) << "PluginManager::enableLumoapp";
    try {
        boost::mutex::scoped_lock lock(statusMutex_);
        datacenter::ConfigInfo* config = datacenter::ConfigInfo::sGetInstance();
        const std::string manifest = sGetPluginManifestPath(LumoappPlugin::Id());
        if (!config->getConfigFromFile(manifest, LumoappPlugin::firstConnectkey()).empty()) {
            return API_SUCCESS;
        }
        config->setConfigToFile(manifest, LumoappPlugin::firstConnectkey(), LumoappPlugin::firstConnectValue());
        const datacenter::PluginInfo info =
            Singleton<PluginStorageManager>::instance()->getPluginInfoById(LumoappPlugin::Id());
        if (info.id.empty()) {
            return API_NO_SUCH_PLUGIN;
        }
        if (info.status == datacenter::ENABLED) {
            CommonUtils::sCallSystem(kPushTvAppActive);
            return API_SUCCESS;
        }
        if (config->getConfigFromFile(manifest, LumoappPlugin::userDisableKey()) ==
            LumoappPlugin::userDisableTrueValue()) {
            return API_TVAPP_SWITCHED_OFF;
        }
        const ApiErrorCode result = changePluginStatusImpl(LumoappPlugin::Id(), datacenter::ENABLED);
        if (result == API_SUCCESS) {
            CommonUtils::sCallSystem(kPushTvAppActive);
            CommonUtils::sCallSystem(kPushTvAppEnabled);
        }
        return result;
    } catch (const std::exception& e) {
        LOG(ERROR) << "PluginManager::enableLumoapp fail: " << e.what();
        return API_GENERAL_FAILURE;
    }
}
