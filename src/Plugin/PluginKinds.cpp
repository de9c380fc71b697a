// The router services that are switched like plugins.
#include <glog/logging.h>

#include <algorithm>
#include <fstream>
#include <vector>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/Plugin.h"
#include "Plugin/PluginManager.h"
#include "common/ShellArgument.h"
#include "common/Singleton.h"
#include "storage/File.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/RootPrefix.h"

namespace {

const char* const kHomepageKey = "homepage";
const char* const kAccessDurationKey = "internet_access_duration";

ApiErrorCode exitCodeAsIs(int exitCode) {
    return exitCode;
}

// The preload caches keep their data outside the plugin directory.
bool removePreloadPluginData() {
    std::string status;
    CommonUtils::sCallSystem("/etc/init.d/cachecenter status", status);
    if (status != "0") {
        LOG(ERROR) << "removePreloadPluginData, remove cache.";
        CommonUtils::sCallSystem("rm -rf " +
                                 datacenter::shellArgument(datacenter::RootPrefix::sPath("/userdisk/cachecenter")));
    }
    return true;
}

std::string manifestStorePath(const std::string& id) {
    return PluginStorageManager::sGetManifestRootPath() + id + "." + "manifest";
}

std::string lumoappManifest() {
    return PluginManager::sGetPluginManifestPath(LumoappPlugin::Id());
}

std::string trimmed(const std::string& text) {
    const char* const space = " \t\n\v\f\r";
    const std::string::size_type first = text.find_first_not_of(space);
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(space) - first + 1);
}

}  // namespace

std::string SambaEnableCmd() {
    return "/etc/init.d/samba start_impl";
}
std::string SambaDisableCmd() {
    return "/etc/init.d/samba stop";
}
std::string LumoAppEnableCmd() {
    return "/etc/init.d/lumoapp start_impl";
}
std::string LumoAppDisableCmd() {
    return "/etc/init.d/lumoapp stop";
}

bool is_valid_duration(const std::string& value) {
    static const std::vector<std::string> durations = {"0", "120"};
    return std::binary_search(durations.begin(), durations.end(), value);
}

std::string TGPPlugin::Id() {
    return "5017400000000000009";
}

SougouPreloadPlugin::SougouPreloadPlugin(PluginManager* manager, const std::string& id)
    : BuildinPlugin(manager, id, "/etc/init.d/cachecenter sougou_on", "/etc/init.d/cachecenter sougou_off") {}
std::string SougouPreloadPlugin::Id() {
    return "5017400000000000003";
}
bool SougouPreloadPlugin::removePluginData() const {
    return removePreloadPluginData();
}

BaiduPreloadPlugin::BaiduPreloadPlugin(PluginManager* manager, const std::string& id)
    : BuildinPlugin(manager, id, "/etc/init.d/cachecenter baidu_on", "/etc/init.d/cachecenter baidu_off") {}
std::string BaiduPreloadPlugin::Id() {
    return "5017400000000000004";
}
bool BaiduPreloadPlugin::removePluginData() const {
    return removePreloadPluginData();
}

AdBlockerPlugin::AdBlockerPlugin(PluginManager* manager, const std::string& id)
    : BuildinPlugin(manager, id, "/etc/init.d/ad_filter on", "/etc/init.d/ad_filter off") {}
std::string AdBlockerPlugin::Id() {
    return "5017400000000000006";
}

WelcomePlugin::WelcomePlugin(PluginManager* manager, const std::string& id)
    : BuildinPlugin(manager, id, "lua /usr/sbin/portalfilter -c on", "lua /usr/sbin/portalfilter -c off") {}
std::string WelcomePlugin::Id() {
    return "5017400000000000005";
}

ApiErrorCode WelcomePlugin::enableHook() const {
    if (!manager()) {
        return API_GENERAL_FAILURE;
    }
    std::string homepage;
    const ApiErrorCode read = manager()->getPluginConfigData(Id(), kHomepageKey, homepage);
    if (read != API_SUCCESS || homepage.empty()) {
        LOG(ERROR) << "PluginManager::enablePluginStatus, getPluginConfigData, homepage_key, fail";
        Singleton<PluginStorageManager>::instance()->updateStatusToStorage(id(), datacenter::DISABLED);
        return API_WELCOME_NO_HOMEPAGE;
    }
    return callSystem(enablecmd_, exitCodeAsIs);
}

bool WelcomePlugin::setPluginConfigData(const std::string&, const std::string& key, const std::string& value,
                                        ApiErrorCode* result) const {
    if (key != kAccessDurationKey) {
        return false;
    }
    *result = is_valid_duration(value) ? callSystem("lua /usr/sbin/portalfilter -t " + value, exitcode2Apicode)
                                       : API_GENERAL_FAILURE;
    return true;
}

SambaPlugin::SambaPlugin(PluginManager* manager, const std::string& id)
    : BuildinPlugin(manager, id, SambaEnableCmd(), SambaDisableCmd()) {}
std::string SambaPlugin::Id() {
    return "5017400000000000007";
}

ApiErrorCode SambaPlugin::disableImpl() const {
    if (datacenter::File::sExists(manifestStorePath(LumoappPlugin::Id()))) {
        const LumoappPlugin tvApp(manager(), LumoappPlugin::Id());
        LOG(INFO) << "AbsPlugin::disable ";
        const ApiErrorCode tvResult = tvApp.disableImpl();
        if (tvResult != API_SUCCESS) {
            return tvResult;
        }
    }
    LOG(INFO) << "AbsPlugin::disableImpl ";
    return disablePluginStatus();
}

MinidlnaPlugin::MinidlnaPlugin(PluginManager* manager, const std::string& id)
    : BuildinPlugin(manager, id, "/etc/init.d/minidlna start_impl", "/etc/init.d/minidlna stop"),
      configPath_(datacenter::RootPrefix::sPath("/tmp/minidlna.conf")) {}
std::string MinidlnaPlugin::Id() {
    return "5017400000000000008";
}

ApiErrorCode MinidlnaPlugin::disableHook() const {
    const ApiErrorCode result = BuildinPlugin::disableHook();
    const std::string dbPath = getDbPath();
    if (datacenter::File::sExists(dbPath)) {
        LOG(INFO) << "remove minidlna db file: " << dbPath;
        datacenter::File::sDelete(dbPath);
    }
    return result;
}

std::string MinidlnaPlugin::getDbPath() const {
    std::ifstream config(configPath_);
    for (std::string line; std::getline(config, line);) {
        const std::string::size_type equals = line.find('=');
        if (line.find('#') != std::string::npos || equals == std::string::npos) {
            continue;
        }
        if (trimmed(line.substr(0, equals)) == "db_dir") {
            return trimmed(line.substr(equals + 1)) + "/files.db";
        }
    }
    return std::string();
}

LumoappPlugin::LumoappPlugin(PluginManager* manager, const std::string& id)
    : BuildinPlugin(manager, id, LumoAppEnableCmd(), LumoAppDisableCmd()) {}
std::string LumoappPlugin::Id() {
    return "5017400000000000010";
}
std::string LumoappPlugin::userDisableKey() {
    return "userDisable";
}
std::string LumoappPlugin::userDisableTrueValue() {
    return "true";
}
std::string LumoappPlugin::userDisableFalseValue() {
    return "false";
}
std::string LumoappPlugin::firstConnectkey() {
    return "Firstconnectkey";
}
std::string LumoappPlugin::firstConnectValue() {
    return "FirstconnectValue";
}

ApiErrorCode LumoappPlugin::disableImpl() const {
    LOG(INFO) << "AbsPlugin::disableImpl ";
    const ApiErrorCode result = disablePluginStatus();
    if (result != API_SUCCESS) {
        return result;
    }
    datacenter::ConfigInfo::sGetInstance()->setConfigToFile(lumoappManifest(), userDisableKey(),
                                                            userDisableTrueValue());
    return API_SUCCESS;
}

ApiErrorCode LumoappPlugin::enableImpl() const {
    const std::string sambaManifest = manifestStorePath(SambaPlugin::Id());
    LOG(INFO) << "call LumoappPlugin::enableImpl";
    if (!datacenter::File::sExists(sambaManifest)) {
        return API_TVAPP_NEEDS_SAMBA;
    }
    const SambaPlugin samba(manager(), SambaPlugin::Id());
    const ApiErrorCode sambaResult = samba.enableImpl();
    if (sambaResult != API_SUCCESS) {
        return sambaResult;
    }
    const ApiErrorCode result = enablePluginStatus();
    if (result == API_SUCCESS) {
        datacenter::ConfigInfo::sGetInstance()->setConfigToFile(lumoappManifest(), userDisableKey(),
                                                                userDisableFalseValue());
    }
    return result;
}
