// Talking to a plugin: RPC control calls to its recorded port, and its own
// configuration file, shared with the plugin's processes under a flock.
#include <fcntl.h>
#include <glog/logging.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <memory>

#include "Plugin/PluginManager.h"
#include "common/PluginId.h"
#include "rpc/DataCenterRpcClient.h"
#include "storage/Directory.h"
#include "storage/FileLock.h"
#include "storage/PluginTree.h"
#include "storage/UniqueFd.h"
#include "system/ConfigInfo.h"
#include "system/ListeningSocket.h"

namespace {

const int kControlTimeoutMs = 5000;

const char* const kConfigName = "etc/plugin_config";
const char* const kConfigLeaf = "plugin_config";

// Opens the plugin's configuration file inside its tree, never through a link
// or special file the plugin planted, and takes the exclusive lock on it.
// The file is replaced by rename on every write, so the lock is only good
// when the locked file is still the one the name leads to. The plugin can
// hold the lock for ever, so the wait has a bound. Returns the locked
// descriptor, -1 when the file cannot be opened, -2 when it cannot be locked.
int openLocked(datacenter::PluginTree& tree, int etcFd) {
    bool announced = false;
    for (;;) {
        const int fd = tree.openFileIn(etcFd, kConfigLeaf, O_RDWR | O_CREAT | O_APPEND, 0777);
        if (fd < 0) {
            LOG(ERROR) << "controlConfigData: cannot open the configuration file: " << tree.lastError();
            return -1;
        }
        if (!announced) {
            // Logged before the wait, so a stuck lock shows in the log.
            LOG(INFO) << "controlConfigData flock";
            announced = true;
        }
        const datacenter::FileLock::Result lock = datacenter::FileLock::sLockExclusive(fd);
        if (lock != datacenter::FileLock::LOCKED) {
            LOG(ERROR) << "controlConfigData: "
                       << (lock == datacenter::FileLock::TIMED_OUT
                               ? "the configuration file stayed locked by another process for "
                               : "cannot lock the configuration file; waited ")
                       << datacenter::FileLock::kDefaultWaitMs << " ms at most";
            close(fd);
            return -2;
        }
        const int again = tree.openFileIn(etcFd, kConfigLeaf, O_RDONLY, 0);
        struct stat locked;
        struct stat current;
        const bool same = again >= 0 && fstat(fd, &locked) == 0 && fstat(again, &current) == 0 &&
                          locked.st_ino == current.st_ino && locked.st_dev == current.st_dev;
        if (again >= 0) {
            close(again);
        }
        if (same) {
            return fd;
        }
        close(fd);
        if (again < 0) {
            return -1;
        }
    }
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
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "controlPlugin: invalid plugin id '" << id << "'";
        return API_FAILED;
    }
    const std::string port = datacenter::ConfigInfo::sGetInstance()->getConfig(getPortKeyPrefix() + id);
    if (port.empty()) {
        LOG(ERROR) << "controlPlugin no port info in config";
        return API_FAILED;
    }
    try {
        // The port comes from a file other plugins can write: only the
        // plugin's own listening socket gets the request.
        const int number = boost::lexical_cast<int>(port);
        std::string reason;
        const std::string address = datacenter::ListeningSocket::sPluginAddress(number, sGetPluginDataPath(id), reason);
        if (address.empty()) {
            LOG(ERROR) << "controlPlugin: nothing is sent to plugin " << id << ": " << reason;
            return API_FAILED;
        }
        const datacenter::RpcResult result =
            datacenter::DataCenterRpcClient::sRequest(address, number, request, response, kControlTimeoutMs);
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
    const std::string dataDirectory = sGetPluginDataPath(id);
    if (!datacenter::Directory::sExists(dataDirectory)) {
        datacenter::Directory::sCreateDirectory(dataDirectory);
    }
    datacenter::PluginTree tree(dataDirectory);
    // Everything below works in this "etc" folder, checked once: the
    // accessor gets a path through its descriptor, so swapping "etc" for a
    // link meanwhile cannot lead the read or the write anywhere else.
    const datacenter::UniqueFd etc(tree.openDirectory("etc", true, 0777));
    const int modeResult = tree.chmod(kConfigName, 0777) ? 0 : -1;
    LOG(WARNING) << "controlConfigData set 777,path is " << getConfigFilePath(id);
    LOG(WARNING) << "controlConfigData set 777,result is " << modeResult;

    const int fd = etc.valid() ? openLocked(tree, etc.get()) : -1;
    if (fd == -1) {
        LOG_IF(ERROR, !etc.valid()) << "controlConfigData: cannot open the etc folder: " << tree.lastError();
        return API_CONFIG_FILE_OPEN_FAILED;
    }
    ApiErrorCode result = API_CONFIG_DATA_LOCK_FAILED;
    if (fd >= 0) {
        result =
            runAccessor(fn, datacenter::PluginTree::sPinnedPath(etc.get(), kConfigLeaf), sConfigKeyPrefix + key, value);
        if (flock(fd, LOCK_UN) != 0) {
            result = API_CONFIG_DATA_LOCK_FAILED;
        }
        close(fd);
    }
    tree.chmod(kConfigName, 0777);
    LOG(INFO) << "controlConfigData unlock";
    return result;
}
