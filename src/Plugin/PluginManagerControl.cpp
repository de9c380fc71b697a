// Talking to a plugin: RPC control calls to its recorded port, and its own
// configuration file, shared with the plugin's processes under a flock.
#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <memory>

#include "Plugin/PluginManager.h"
#include "common/PluginId.h"
#include "rpc/DataCenterRpcClient.h"
#include "storage/Directory.h"
#include "storage/FileLock.h"
#include "system/ConfigInfo.h"

namespace {

const int kControlTimeoutMs = 5000;

int makeAccessible(const std::string& path) {
    return chmod(path.c_str(), 0777);
}

// Creates `path` if missing, never truncating it; false when it cannot be
// opened. A link planted in its place is not followed.
bool canOpenForAppending(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0777);
    if (fd < 0) {
        return false;
    }
    ::close(fd);
    return true;
}

// Runs the accessor, turning what it throws into the configuration-data codes.
ApiErrorCode runAccessor(void (*fn)(const std::string&, const std::string&, std::string&), const std::string& path,
                         const std::string& key, std::string& value) {
    try {
        fn(path, key, value);
        return API_SUCCESS;
    } catch (const std::exception& e) {
        LOG(ERROR) << "control Config Data EXCEPTION:" << e.what();
        return API_CONFIG_DATA_STD_EXCEPTION;
    } catch (...) {
        LOG(ERROR) << "control Config Data EXCEPTION.";
        return API_CONFIG_DATA_EXCEPTION;
    }
}

}  // namespace

void getDataFun(const std::string& path, const std::string& key, std::string& value) {
    value = datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(path, key);
}

void setDataFun(const std::string& path, const std::string& key, std::string& value) {
    datacenter::ConfigInfo::sGetInstance()->setConfigToFile(path, key, value);
}

ApiErrorCode PluginManager::controlPlugin(const std::string& id, const std::string& request, std::string& response) {
    LOG(INFO) << "controlPlugin, id is " << id;
    const std::string port = datacenter::ConfigInfo::sGetInstance()->getConfig(getPortKeyPrefix() + id);
    if (port.empty()) {
        LOG(ERROR) << "controlPlugin no port info in config";
        return API_FAILED;
    }
    try {
        const datacenter::RpcResult result = datacenter::DataCenterRpcClient::sRequest(
            "localhost", boost::lexical_cast<int>(port), request, response, kControlTimeoutMs);
        if (result.ok()) {
            return API_SUCCESS;
        }
        if (result.status == datacenter::RpcResult::RPC_FAILED) {
            // Not a transport failure (an exception answered by the plugin, a broken reply).
            LOG(ERROR) << "controlPlugin Exception.";
            return API_FAILED;
        }
        LOG(ERROR) << "controlPlugin Exception. " << result.message;
        return result.status == datacenter::RpcResult::RPC_TIMEOUT ? API_CONTROL_TIMEOUT : API_FAILED;
    } catch (const std::exception&) {
        LOG(ERROR) << "controlPlugin Exception.";
        return API_FAILED;
    }
}

ApiErrorCode PluginManager::getPluginConfigData(const std::string& id, const std::string& key, std::string& value) {
    return controlConfigData(id, key, value, getDataFun);
}

ApiErrorCode PluginManager::setPluginConfigData(const std::string& id, const std::string& key, std::string value) {
    try {
        const std::unique_ptr<AbsPlugin> plugin(createPlugin(id));
        if (!plugin) {
            LOG(ERROR) << "PluginManager::setPluginConfigDate fail";
            return API_GENERAL_FAILURE;
        }
        ApiErrorCode result = API_SUCCESS;
        if (!plugin->setPluginConfigData(id, key, value, &result)) {
            result = controlConfigData(id, key, value, setDataFun);
        }
        return result;
    } catch (const std::exception& e) {
        LOG(ERROR) << "PluginManager::setPluginConfigDate fail, exception: " << e.what();
        return API_GENERAL_FAILURE;
    }
}

ApiErrorCode PluginManager::controlConfigData(const std::string& id, const std::string& key, std::string& value,
                                              void (*fn)(const std::string&, const std::string&, std::string&)) {
    LOG(INFO) << "controlConfigData begin";
    // Without a plain id the path would leave the plugin's own directory.
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "controlConfigData: invalid plugin id '" << id << "'";
        return API_FAILED;
    }
    const std::string etcDirectory = sGetPluginDataPath(id) + "/etc/";
    if (!datacenter::Directory::sExists(etcDirectory)) {
        datacenter::Directory::sCreateDirectory(etcDirectory);
    }
    const std::string path = getConfigFilePath(id);
    const int modeResult = makeAccessible(path);
    LOG(WARNING) << "controlConfigData set 777,path is " << path;
    LOG(WARNING) << "controlConfigData set 777,result is " << modeResult;

    // Opened (created if missing, never truncated) before the line is logged,
    // so that the line always comes before the wait for the lock.
    if (!canOpenForAppending(path)) {
        return API_CONFIG_FILE_OPEN_FAILED;
    }
    LOG(INFO) << "controlConfigData flock";
    datacenter::FileLock lock(path);
    if (lock.openFailed()) {
        return API_CONFIG_FILE_OPEN_FAILED;
    }
    ApiErrorCode result = API_CONFIG_DATA_LOCK_FAILED;
    if (lock.locked()) {
        result = runAccessor(fn, path, sConfigKeyPrefix + key, value);
        if (!lock.unlock()) {
            result = API_CONFIG_DATA_LOCK_FAILED;
        }
    }
    makeAccessible(path);
    LOG(INFO) << "controlConfigData unlock";
    return result;
}
