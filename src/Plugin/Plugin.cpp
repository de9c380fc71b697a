#include "Plugin/Plugin.h"

#include <glog/logging.h>
#include <sys/wait.h>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/ManifestCapabilities.h"
#include "Plugin/PluginManager.h"
#include "common/ShellArgument.h"
#include "common/Singleton.h"
#include "storage/Directory.h"
#include "system/CommandRunner.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/Environment.h"
#include "system/ProcessOwnership.h"

ApiErrorCode exitcode2Apicode(int exitCode) {
    return exitCode == 0 ? API_SUCCESS : API_GENERAL_FAILURE;
}

ApiErrorCode Exitcode2Apicode(int exitCode) {
    return exitcode2Apicode(exitCode);
}

ApiErrorCode callSystem(const std::string& cmd, ApiErrorCode (*convert)(int)) {
    LOG(INFO) << "callSystem cmd: " << cmd;
    if (cmd.empty()) {
        return API_GENERAL_FAILURE;
    }
    const int status = datacenter::CommandRunner::sCurrent()->runShell(cmd);
    if (status == -1) {
        // The shell itself could not be started: the command did not run.
        return API_GENERAL_FAILURE;
    }
    if (WIFEXITED(status)) {
        return convert(WEXITSTATUS(status));
    }
    if (WIFSIGNALED(status)) {
        return API_GENERAL_FAILURE;
    }
    return API_SUCCESS;
}

AbsPlugin::AbsPlugin(PluginManager* manager, const std::string& id) : manager_(manager), id_(id) {}

AbsPlugin::~AbsPlugin() = default;

bool AbsPlugin::setPluginConfigData(const std::string&, const std::string&, const std::string&, ApiErrorCode*) const {
    return false;
}

bool AbsPlugin::removePluginData() const {
    return false;
}

ApiErrorCode AbsPlugin::enableImpl() const {
    return enablePluginStatus();
}

ApiErrorCode AbsPlugin::disableImpl() const {
    LOG(INFO) << "AbsPlugin::disableImpl ";
    return disablePluginStatus();
}

bool AbsPlugin::killProcesses() const {
    return true;
}

ApiErrorCode AbsPlugin::enablePluginStatus() const {
    LOG(INFO) << "AbsPlugin enablePluginStatus";
    try {
        Singleton<PluginManager>::instance()->resetPluginPids(id_);
        const ApiErrorCode hook = enableHook();
        if (hook != API_SUCCESS) {
            return hook;
        }
        return Singleton<PluginStorageManager>::instance()->updateStatusToStorage(id_, datacenter::ENABLED)
                   ? API_SUCCESS
                   : API_STORE_STATUS_FAILED;
    } catch (const std::exception& e) {
        LOG(ERROR) << "AbsPlugin::enablePluginStatus  exception: " << e.what();
        return API_GENERAL_FAILURE;
    }
}

ApiErrorCode AbsPlugin::disablePluginStatus() const {
    LOG(INFO) << "AbsPlugin::disablePluginStatus ";
    LOG(INFO) << "AbsPlugin::disablePluginStatus  disableHook";
    ApiErrorCode result = API_SUCCESS;
    try {
        result = disableHook();
        if (!killProcesses() && result == API_SUCCESS) {
            LOG(ERROR) << "AbsPlugin::disablePluginStatus  plugin " << id_ << " could not be stopped";
            result = API_GENERAL_FAILURE;
        }
        if (result == API_SUCCESS) {
            LOG(INFO) << "AbsPlugin::disablePluginStatus  updateStatusToStorage";
            if (!Singleton<PluginStorageManager>::instance()->updateStatusToStorage(id_, datacenter::DISABLED)) {
                LOG(ERROR) << "AbsPlugin::disablePluginStatus  updateStatusToStorage fail!";
                result = API_STORE_STATUS_FAILED;
            }
        }
    } catch (const std::exception& e) {
        LOG(ERROR) << "AbsPlugin::disablePluginStatus  exception: " << e.what();
        killProcesses();
        result = API_GENERAL_FAILURE;
    }
    LOG(INFO) << "AbsPlugin::disablePluginStatus  return code" << result;
    return result;
}

BinaryPlugin::BinaryPlugin(PluginManager* manager, const std::string& id) : AbsPlugin(manager, id) {}

ApiErrorCode BinaryPlugin::enableHook() const {
    // The controller builds the sandbox from the plugin's own manifest:
    // its capabilities must be the recorded ones first.
    const ApiErrorCode capabilities = ManifestCapabilities::sMatchStore(id());
    if (capabilities != API_SUCCESS) {
        return capabilities;
    }
    LOG(INFO) << "BinaryPlugin enableHook pluginControllor";
    const ApiErrorCode result =
        callSystem(datacenter::planformGetPluginControllorPath() + " -b " + datacenter::shellArgument(id()) + " ",
                   exitcode2Apicode);
    LOG(INFO) << "BinaryPlugin enableHook pluginControllor end. code is " << result;
    return result;
}

ApiErrorCode BinaryPlugin::disableHook() const {
    return callSystem(datacenter::planformGetPluginControllorPath() + " -k " + datacenter::shellArgument(id()) + " ",
                      exitcode2Apicode);
}

bool BinaryPlugin::killProcesses() const {
    const std::string pids = datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(
        PluginManager::sGetPluginPidConfig(), PluginManager::getPidKeyPrefix() + id());
    // The pid file is world-writable: only the plugin's own processes, as
    // /proc shows them, are signalled.
    const std::string dataDir = PluginManager::sGetPluginDataPath(id());
    const std::vector<int> owned =
        datacenter::ProcessOwnership::sOwnedPids(CommonUtils::splitString(pids, ";"), id(), dataDir);
    if (datacenter::ProcessOwnership::sStop(owned, dataDir) > 0) {
        datacenter::Environment::sSleepMilliseconds(1000);
    }
    Singleton<PluginManager>::instance()->resetPluginPids(id());
    // The pid file holds only what the plugin chose to write: a daemon it
    // forked into a session of its own is found through /proc.
    return datacenter::ProcessOwnership::sStopAll(id(), dataDir) == 0;
}

BuildinPlugin::BuildinPlugin(PluginManager* manager, const std::string& id, const std::string& enablecmd,
                             const std::string& disablecmd)
    : AbsPlugin(manager, id), enablecmd_(enablecmd), disablecmd_(disablecmd) {}

ApiErrorCode BuildinPlugin::enableHook() const {
    LOG(INFO) << "call BuildinPlugin::enable_hook enablecmd_:" << enablecmd_;
    return callSystem(enablecmd_, exitcode2Apicode);
}

ApiErrorCode BuildinPlugin::disableHook() const {
    LOG(INFO) << "call CmdlinePlugin::disable_hook disablecmd_:" << disablecmd_;
    return callSystem(disablecmd_, exitcode2Apicode);
}

ApiErrorCode AbsChangeStatus::accept(const std::unique_ptr<AbsPlugin>& plugin) const {
    LOG(INFO) << "AbsChangeStatus::accept ";
    if (!plugin) {
        LOG(ERROR) << "AbsChangeStatus::accept fail: deref null pointer ";
        return API_GENERAL_FAILURE;
    }
    return accept_impl(plugin);
}

ApiErrorCode EnableStatus::accept_impl(const std::unique_ptr<AbsPlugin>& plugin) const {
    LOG(INFO) << "EnableStatus::accept_impl ";
    return plugin->enableImpl();
}

ApiErrorCode DisableStatus::accept_impl(const std::unique_ptr<AbsPlugin>& plugin) const {
    LOG(INFO) << "DisableStatus::accept_impl ";
    LOG(INFO) << "AbsPlugin::disable ";
    return plugin->disableImpl();
}

ApiErrorCode InvalidActionStatus::accept_impl(const std::unique_ptr<AbsPlugin>&) const {
    return API_INVALID_STATUS;
}
