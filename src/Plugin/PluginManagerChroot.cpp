// The plugin's chroot sandbox as seen from the manager: unmounting it,
// running commands inside it through the platform's script, and the
// capability check that services make with a plugin's token.
#include <glog/logging.h>

#include <algorithm>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/PluginId.h"
#include "common/ShellArgument.h"
#include "common/Singleton.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

namespace {

void trimLineEnd(std::string& output) {
    if (!output.empty() && output.back() == '\n') {
        output.pop_back();
    }
}

// Runs "chroot_run_script.sh <dir> <arguments>" for a checked id.
ApiErrorCode runInChroot(const char* operation, const std::string& id, const std::string& what,
                         const std::string& arguments, std::string& output) {
    if (id.empty() || what.empty()) {
        LOG(ERROR) << operation << " para empty!";
        return API_FAILED;
    }
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << operation << ": invalid plugin id '" << id << "'";
        return API_FAILED;
    }
    const std::string command =
        PluginManager::sChrootRunScriptPath + " " + PluginManager::sGetPluginDataPath(id) + " " + arguments;
    if (!CommonUtils::sCallSystem(command, output)) {
        LOG(ERROR) << " Chroot Error. " << output;
        return API_FAILED;
    }
    trimLineEnd(output);
    return API_SUCCESS;
}

}  // namespace

ApiErrorCode PluginManager::umountRemoveChrootFolder(const std::string& id, std::string& output) {
    if (id.empty()) {
        LOG(ERROR) << "umountRemoveChrootFolder para empty!";
        return API_FAILED;
    }
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "umountRemoveChrootFolder: invalid plugin id '" << id << "'";
        return API_FAILED;
    }
    if (!CommonUtils::sCallSystem(sUnmountChrootPath + " " + datacenter::shellArgument(sGetPluginDataPath(id)),
                                  output)) {
        return API_FAILED;
    }
    trimLineEnd(output);
    return API_SUCCESS;
}

ApiErrorCode PluginManager::chrootRunCommand(const std::string& id, const std::string& command, std::string& output) {
    return runInChroot("chrootRunCommand", id, command, command, output);
}

ApiErrorCode PluginManager::chrootRunScript(const std::string& id, const std::string& script, std::string& output) {
    return runInChroot("chrootRunScript", id, script, "/bin/ash " + script, output);
}

ApiErrorCode PluginManager::chrootRunbinary(const std::string& id, const std::string& binary, std::string& output) {
    return runInChroot("chrootRunbinary", id, binary, binary, output);
}

ApiErrorCode PluginManager::verifyCapability(const std::string& id, const std::string& token,
                                             const std::string& capability, bool& allowed) {
    allowed = false;
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "verifyCapability: invalid plugin id '" << id << "'";
        return API_CAPABILITY_UNKNOWN_PLUGIN;
    }
    datacenter::ConfigInfo* config = datacenter::ConfigInfo::sGetInstance();
    std::string foundId;
    std::string storedToken;
    std::vector<std::string> capabilities;
    if (id == config->getConfig(sDeveloperSSHPluginId)) {
        const std::string manifest = sGetPluginRootPath() + sDeveloperSSHInfoManifest;
        foundId = config->getConfigFromFile(manifest, "plugin_id");
        capabilities = config->getListFromFile(manifest, "capability_list");
        storedToken = config->getConfigFromFile(manifest, PluginStorageManager::sManifestSdkTokenKey);
    } else {
        const datacenter::PluginInfo info = Singleton<PluginStorageManager>::instance()->getPluginInfoById(id);
        foundId = info.id;
        capabilities = info.capabilityList;
        storedToken = info.sdkToken;
    }
    if (foundId.empty()) {
        return API_CAPABILITY_UNKNOWN_PLUGIN;
    }
    LOG(INFO) << "verifyCapability: file token is " << storedToken;
    LOG(INFO) << "verifyCapability: input token is " << token;
    if (storedToken.empty()) {
        allowed = true;
        return API_SUCCESS;
    }
    if (storedToken != token) {
        return API_TOKEN_MISMATCH;
    }
    allowed = std::find(capabilities.begin(), capabilities.end(), capability) != capabilities.end();
    return API_SUCCESS;
}
