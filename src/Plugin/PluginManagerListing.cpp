// Questions about plugins that change nothing: the installed list, one
// plugin's record, install progress, the resource use of a plugin's
// processes, and a few small queries of the router offered to plugins.
#include <glog/logging.h>
#include <json-c/json.h>

#include <cstdio>
#include <iostream>
#include <mutex>
#include <set>
#include <stdexcept>
#include <vector>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/GlobalLinkPlugin.h"
#include "Plugin/OrbisStorePlugin.h"
#include "Plugin/PluginManager.h"
#include "common/PluginId.h"
#include "common/ShellArgument.h"
#include "common/Singleton.h"
#include "system/AppAccountManager.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/ProcessOwnership.h"
#include "system/WebRequest.h"

namespace {

const int kWebTimeoutSeconds = 5;
// A metrics call samples at most this many processes (about a second each).
const size_t kMaxSampledProcesses = 16;

std::mutex gWebHostMutex;
std::string gWebHost = "localhost";

bool isPlainDecimal(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Formats `format` with the pid text in both places, runs it and parses two
// numbers from its output; a value that does not parse stays as it was.
void sample(const char* format, const std::string& pid, double& first, double& second) {
    char command[96];
    snprintf(command, sizeof(command), format, pid.c_str(), pid.c_str());
    std::cout << command << std::endl;
    std::string output;
    CommonUtils::sCallSystem(command, output);
    sscanf(output.c_str(), "%lf %lf", &first, &second);
    std::cout << output << std::endl;
}

// Samples the process of `metrics`: top for CPU and memory, pidstat for disk rates.
void sampleProcess(PidMetrics& metrics) {
    const std::string pid = std::to_string(metrics.pid);
    sample("top -p %s -b -n 1 |sed -n 8p|grep %s| awk '{print  $9, $10}'", pid, metrics.cpuPercent, metrics.memPercent);
    sample("pidstat -p %s -d 1 1 |tail -n 1|grep %s|awk '{print  $3, $4}'", pid, metrics.readKBPerSec,
           metrics.writeKBPerSec);
}

bool isMacAddress(const std::string& mac) {
    return !mac.empty() && mac.size() <= 17 && mac.find_first_not_of("0123456789abcdefABCDEF:-") == std::string::npos;
}

// The router's web API address: the port 80 is added when the host names none.
std::string webBase(bool withDefaultPort) {
    const std::string host = PluginManager::sRouterWebHost();
    return withDefaultPort && host.find(':') == std::string::npos ? host + ":80" : host;
}

}  // namespace

std::string PluginManager::sRouterWebHost() {
    std::lock_guard<std::mutex> lock(gWebHostMutex);
    return gWebHost;
}

void PluginManager::sSetRouterWebHost(const std::string& host) {
    std::lock_guard<std::mutex> lock(gWebHostMutex);
    gWebHost = host.empty() ? "localhost" : host;
}

ApiErrorCode PluginManager::getPluginList(std::vector<datacenter::PluginInfo>& out) {
    out.clear();
    // A copy of our own, so the records move into the list instead of being
    // copied a second time (and again whenever the list grew).
    std::map<std::string, datacenter::PluginInfo> infos =
        Singleton<PluginStorageManager>::instance()->getListablePluginInfos();
    LOG(WARNING) << "getPluginList DB count is " << infos.size();
    out.reserve(infos.size());
    for (auto& entry : infos) {
        out.push_back(std::move(entry.second));
    }
    return API_SUCCESS;
}

ApiErrorCode PluginManager::getOnePlugin(std::vector<datacenter::PluginInfo>& out, const std::string& id) {
    out.clear();
    const boost::shared_ptr<InstallAction> action = currentAction();
    if (action) {
        const datacenter::PluginInfo record = action->getPluginInfo();
        if ((action->isInstalling() || record.errorCode != API_SUCCESS) && record.id == id) {
            out.push_back(record);
            return API_SUCCESS;
        }
    }
    const datacenter::PluginInfo stored = Singleton<PluginStorageManager>::instance()->getListablePluginInfoById(id);
    if (!stored.id.empty()) {
        out.push_back(stored);
    }
    return API_SUCCESS;
}

ApiErrorCode PluginManager::getPluginInstallProgress(std::vector<datacenter::PluginInfo>& out, const std::string& ids) {
    out.clear();
    ApiErrorCode result = API_SUCCESS;
    if (ids.empty()) {
        return result;
    }
    for (const std::string& id : CommonUtils::splitString(ids, ";")) {
        std::vector<datacenter::PluginInfo> found;
        result = getOnePlugin(found, id);
        std::cout << "count" << found.size() << std::endl;
        if (!found.empty() && found.front().id == id) {
            datacenter::PluginInfo record = found.front();
            if (record.status == datacenter::INSTALLING) {
                record.progress = 100;
            }
            out.push_back(record);
        } else {
            datacenter::PluginInfo missing;
            missing.id = id;
            missing.status = datacenter::NOT_INSTALLED;
            out.push_back(missing);
        }
    }
    return result;
}

void PluginManager::updatePluginListToServer() {
    std::vector<datacenter::PluginInfo> plugins;
    getPluginList(plugins);
    if (plugins.empty()) {
        return;
    }
    std::string ids;
    for (const datacenter::PluginInfo& plugin : plugins) {
        // Only plain ids go onto the command line; anything else is no id this system made.
        if (datacenter::isSafePluginId(plugin.id)) {
            ids += (ids.empty() ? "" : ",") + plugin.id;
        }
    }
    if (ids.empty()) {
        return;
    }
    std::string output;
    CommonUtils::sCallSystem("matool --method setKV --params plugin_id_list " + datacenter::shellArgument(ids), output);
}

bool PluginManager::getPluginMetrics(const std::string& id, std::vector<PidMetrics>& out) const {
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "PluginManager::getPluginMetrics: invalid plugin id '" << id << "'";
        return false;
    }
    const std::string pids =
        datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(sGetPluginPidConfig(), getPidKeyPrefix() + id);
    LOG(ERROR) << "PluginManager::getPluginMetrics, pids: " << pids;
    const std::vector<std::string> entries = CommonUtils::splitStringTokenCompress(pids, ";");
    const std::string dataDir = sGetPluginDataPath(id);
    size_t looked = 0;
    size_t sampled = 0;
    std::set<int> sampledPids;
    for (const std::string& entry : entries) {
        if (entry.empty()) {
            continue;
        }
        PidMetrics metrics;
        try {
            // Only a plain decimal reaches the command line below.
            if (!isPlainDecimal(entry)) {
                throw std::invalid_argument("not a plain decimal: " + entry);
            }
            metrics.pid = std::stoi(entry);
        } catch (const std::exception& e) {
            LOG(ERROR) << "PluginManager::getPluginMetrics, get pid value fail" << e.what();
            return false;
        }
        LOG(INFO) << "PluginManager::getPluginMetrics, pid: " << metrics.pid;
        if (entry.size() > 10) {
            LOG(ERROR) << "PluginManager::getPluginMetrics, get pid value fail, pid's size not valid";
            return false;
        }
        // Each sample takes a second: the pid file is world-writable, so
        // both what is read and what is sampled are bounded, and only the
        // plugin's own processes are shown.
        if (++looked > datacenter::ProcessOwnership::kMaxEntries || sampled == kMaxSampledProcesses) {
            LOG(ERROR) << "PluginManager::getPluginMetrics, too many pids for plugin " << id
                       << "; the rest are skipped";
            break;
        }
        std::string reason;
        if (!datacenter::ProcessOwnership::sBelongsTo(metrics.pid, dataDir, reason)) {
            LOG(ERROR) << "skip pid '" << entry << "' of plugin " << id << ": " << reason;
            continue;
        }
        sampleProcess(metrics);
        sampledPids.insert(metrics.pid);
        out.push_back(metrics);
        ++sampled;
    }
    // The pid file holds what the plugin chose to write; the rest of its
    // processes are found as a stop finds them.
    for (const int pid : datacenter::ProcessOwnership::sFind(dataDir)) {
        PidMetrics metrics;
        metrics.pid = pid;
        if (sampled < kMaxSampledProcesses && sampledPids.insert(pid).second) {
            sampleProcess(metrics);
            out.push_back(metrics);
            ++sampled;
        }
    }
    return true;
}

ApiErrorCode PluginManager::monitorPlugin(const std::string& id, json_object* array) const {
    LOG(INFO) << "PluginManager::monitoryPlugin";
    std::vector<PidMetrics> metrics;
    getPluginMetrics(id, metrics);
    if (!array) {
        return API_INVALID_STATUS;
    }
    try {
        for (const PidMetrics& one : metrics) {
            json_object_array_add(array, pidMetricsToJson(one));
        }
        LOG(INFO) << "PluginManager::monitoryPlugin, parray: " << json_object_to_json_string(array);
    } catch (const JsonObjectBadAllocException&) {
        LOG(ERROR) << "json object bad alloc exception";
    }
    return API_SUCCESS;
}

boost::shared_ptr<PluginItemBase> PluginManager::getItem(ApiPluginCode code) {
    switch (code) {
        case API_PLUGIN_ORBIS_STORE:
            return boost::shared_ptr<PluginItemBase>(new OrbisStorePlugin());
        case API_PLUGIN_GLOBAL_LINK:
            return boost::shared_ptr<PluginItemBase>(new GlobalLinkPlugin());
        default:
            return boost::shared_ptr<PluginItemBase>();
    }
}

ApiErrorCode PluginManager::getRouterMac(std::string& out) {
    std::string output;
    if (!CommonUtils::sCallSystem("ifconfig", output)) {
        return API_FAILED;
    }
    const std::string::size_type at = output.find("HWaddr ");
    if (at == std::string::npos || output.size() < at + 7 + 17) {
        return API_FAILED;
    }
    out = output.substr(at + 7, 17);
    return API_SUCCESS;
}

ApiErrorCode PluginManager::getConnectedDeviceList(std::string& out) {
    const std::string url = webBase(true) + "/cgi-bin/luci/api/hvsystem/device_list";
    return WebRequest::Get(url, out, kWebTimeoutSeconds) == 0 ? API_SUCCESS : API_FAILED;
}

ApiErrorCode PluginManager::SetDeviceWan(const std::string& mac, bool allow) {
    if (!isMacAddress(mac)) {
        LOG(ERROR) << "SetDeviceWan: refusing mac '" << mac << "'";
        return API_FAILED;
    }
    const std::string url = webBase(false) + "/cgi-bin/luci/;stok=token/api/hvsystem/set_mac_filter?mac=" + mac +
                            "&wan=" + (allow ? "1" : "0");
    std::string response;
    const int result = WebRequest::Get(url, response, kWebTimeoutSeconds);
    LOG(INFO) << "SetDeviceWan request:" << url << response;
    return result == 0 ? API_SUCCESS : API_FAILED;
}

bool PluginManager::checkCountryCode(const std::string& id) {
    if (!datacenter::isSafePluginId(id)) {
        return false;
    }
    const std::string version =
        datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(sGetPluginManifestPath(id), "version");
    const std::string countryCode = CommonUtils::sGetCountryCode();
    AppAccountManager accounts;
    return accounts.isSupportedCountryCode(id, countryCode, version);
}
