#include "Plugin/PluginManager.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <libconfig.h++>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManagerExtend.h"
#include "Plugin/installAction/InstallJournal.h"
#include "common/PluginId.h"
#include "common/ShellArgument.h"
#include "common/Singleton.h"
#include "storage/Directory.h"
#include "storage/File.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/LibconfigFile.h"
#include "system/RootPrefix.h"

using datacenter::ConfigInfo;

const std::string PluginManager::sManifestFileName = "/etc/manifest";
const std::string PluginManager::sDownloadQpkLocalName = "korvia.qpk";
const std::string PluginManager::sVerifiedQpkLocalName = "verified_korvia.qpk";
const std::string PluginManager::sPluginConfigFileDirectory = "/etc/";
const std::string PluginManager::sPluginConfigFileName = "plugin_config";
const std::string PluginManager::sChrootRunScriptPath = "chroot_run_script.sh";
const std::string PluginManager::sUnmountChrootPath = "chroot_umout.sh";
const std::string PluginManager::sConfigKeyPrefix = "key";
const std::string PluginManager::sSdkLevelFilePath = "/usr/share/datacenter/sdk_level";
const std::string PluginManager::sPluginPidConfigFile = "/plugin_id_info.cfg";
const std::string PluginManager::sDeveloperSSHRoot = "/userdisk/debug_app/";
const std::string PluginManager::sDeveloperSSHPluginId = "developerSSHPluginIdKey";
const std::string PluginManager::sDeveloperSSHInfoManifest = "/urlinstall.qpk";
const std::string PluginManager::sUrlInstallTmpPath = "";

namespace {

template <class Kind>
void registerKind(PluginManager::PluginFactory& factory, const char* logText) {
    LOG(INFO) << logText << Kind::Id();
    factory.registerCreator(Kind::Id(), &zkfactory::create<AbsPlugin, Kind, PluginManager*, const std::string&>);
}

// Creates the shared file `path` (mode 0777, as the contract makes it)
// through its own descriptor: a link planted in its place is not followed,
// and a file with another name elsewhere (a hard link) is not chmodded.
void createEmptyFile(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0777);
    if (fd < 0) {
        LOG(ERROR) << "cannot create " << path << ": " << strerror(errno);
        return;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 || ::fchmod(fd, 0777) != 0) {
        LOG(ERROR) << "cannot create " << path << ": not a plain file of its own";
    }
    ::close(fd);
}

}  // namespace

PluginManager::PluginManager() {
    const std::string manifestRoot = PluginStorageManager::sGetManifestRootPath();
    if (!datacenter::Directory::sIsDirectory(manifestRoot)) {
        datacenter::Directory::sCreateDirectory(manifestRoot);
    }
    if (!datacenter::File::sExists(sGetPluginPidConfig())) {
        createEmptyFile(sGetPluginPidConfig());
    }
    // An installer that died part-way left debris and a record of it.
    std::string restart;
    InstallJournal::sRecover(&restart);
    const std::string uninstall = InstallJournal::sUnfinishedUninstall();
    registerPluginKinds();
    statusFactory_[datacenter::ENABLED] = &zkfactory::create<AbsChangeStatus, EnableStatus>;
    statusFactory_[datacenter::DISABLED] = &zkfactory::create<AbsChangeStatus, DisableStatus>;
    if (!restart.empty()) {
        restartRecovered(restart);
    }
    if (!uninstall.empty()) {
        finishUninstall(uninstall);
    }
    undeletableIds_.insert(SambaPlugin::Id());
    undeletableIds_.insert(MinidlnaPlugin::Id());
    undeletableIds_.insert(LumoappPlugin::Id());
    datacenter::PluginManagerExtend::sInitExtend();
    updatePluginListToServer();
}

PluginManager::~PluginManager() = default;

void PluginManager::restartRecovered(const std::string& id) {
    // The status change itself would ask for this manager, which is not made
    // yet: its steps run here on this object.
    resetPluginPids(id);
    const std::unique_ptr<AbsPlugin> plugin(createPlugin(id));
    const ApiErrorCode started = plugin ? plugin->enableHook() : API_GENERAL_FAILURE;
    if (started == API_SUCCESS || started == API_WELCOME_NO_HOMEPAGE) {
        Singleton<PluginStorageManager>::instance()->updateStatusToStorage(id, datacenter::ENABLED);
    } else {
        LOG(ERROR) << "install recovery: plugin " << id << " does not start again: " << started;
    }
}

void PluginManager::registerPluginKinds() {
    registerKind<SougouPreloadPlugin>(pluginFactory_, "register SougouPreloadPlugin::Id()");
    registerKind<BaiduPreloadPlugin>(pluginFactory_, "register BaiduPreloadPlugin::Id()");
    registerKind<WelcomePlugin>(pluginFactory_, "register WelcomePlugin::Id()");
    registerKind<AdBlockerPlugin>(pluginFactory_, "register AdBlockerPlugin::Id()");
    registerKind<SambaPlugin>(pluginFactory_, "register SambaPlugin::Id()");
    registerKind<MinidlnaPlugin>(pluginFactory_, "register MinidlnaPlugin::Id()");
    registerKind<LumoappPlugin>(pluginFactory_, "register LumoappPlugin::Id()");
}

std::string PluginManager::sGetPluginRootPath() {
    return datacenter::planformetPluginRootPath();
}

std::string PluginManager::sGetPluginDataPath(const std::string& id) {
    return id.empty() ? std::string() : sGetPluginRootPath() + id + "/";
}

std::string PluginManager::sGetPluginManifestPath(const std::string& id) {
    return sGetPluginDataPath(id) + sManifestFileName;
}

std::string PluginManager::sGetQpkLocalPath(const std::string& id) {
    return sGetPluginDataPath(id) + sDownloadQpkLocalName;
}

std::string PluginManager::sGetPluginPidConfig() {
    return sGetPluginRootPath() + sPluginPidConfigFile;
}

std::string PluginManager::getConfigFilePath(const std::string& id) const {
    return sGetPluginDataPath(id) + sPluginConfigFileDirectory + sPluginConfigFileName;
}

ApiErrorCode PluginManager::getPluginStatus(const std::string& id, datacenter::PluginStatus& status) {
    const datacenter::PluginInfo info = Singleton<PluginStorageManager>::instance()->getListablePluginInfoById(id);
    if (info.id.empty()) {
        return API_NO_SUCH_PLUGIN;
    }
    status = info.status;
    return API_SUCCESS;
}

ApiErrorCode PluginManager::getPluginById(datacenter::PluginInfo& info, std::string id) {
    if (id.empty()) {
        LOG(ERROR) << "PluginManager getPluginById ID is EMPTY!!";
        return API_EMPTY_ARGUMENT;
    }
    info = Singleton<PluginStorageManager>::instance()->getListablePluginInfoById(id);
    return API_SUCCESS;
}

ApiErrorCode PluginManager::updatePluginUseStatus(const std::string& id, datacenter::PluginUseStatus useStatus) {
    return Singleton<PluginStorageManager>::instance()->updateUseStatusToStorage(id, useStatus)
               ? API_SUCCESS
               : API_STORE_STATUS_FAILED;
}

ApiErrorCode PluginManager::sSetPluginPort(const std::string& id, const std::string& value,
                                           datacenter::PluginSetValueType type) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    if (type == datacenter::PORT) {
        config->setConfig(getPortKeyPrefix() + id, value);
    } else if (type == datacenter::PID) {
        const std::string key = getPidKeyPrefix() + id;
        std::string pids = config->getConfigFromFile(sGetPluginPidConfig(), key);
        if (!pids.empty()) {
            pids += ";";
        }
        config->setConfigToFile(sGetPluginPidConfig(), key, pids + value);
    }
    return API_SUCCESS;
}

ApiErrorCode PluginManager::setPluginPort(const std::string& id, const std::string& value,
                                          datacenter::PluginSetValueType type) {
    return sSetPluginPort(id, value, type);
}

void PluginManager::resetPluginPids(const std::string& id) {
    // Stale ids must not survive a stop or a fresh start: the kernel reuses
    // them, and a later stop would signal an unrelated process.
    ConfigInfo::sGetInstance()->setConfigToFile(sGetPluginPidConfig(), getPidKeyPrefix() + id, "");
}

ApiErrorCode PluginManager::killAllPlugin() {
    LOG(INFO) << "killAllPlugin";
    CommonUtils::sCallSystem("plugin_stop_impl_KV01.sh");
    return API_SUCCESS;
}

std::string PluginManager::sNewSdkToken() {
    uuid_t uuid;
    uuid_generate(uuid);
    char text[33];
    for (int i = 0; i < 16; ++i) {
        snprintf(text + 2 * i, 3, "%02X", uuid[i]);
    }
    return std::string(text, 32);
}

ApiErrorCode PluginManager::generatePluginSSHManifest(std::string id, const std::vector<std::string>& capabilities) {
    ConfigInfo::sGetInstance()->setConfig(sDeveloperSSHPluginId, id);
    const std::string developerRoot = datacenter::RootPrefix::sPath(sDeveloperSSHRoot);
    const std::string manifest = developerRoot + "etc/manifest";
    try {
        libconfig::Config document;
        libconfig::Setting& root = document.getRoot();
        root.add("plugin_id", libconfig::Setting::TypeString) = id;
        root.add(PluginStorageManager::sManifestSdkTokenKey, libconfig::Setting::TypeString) = sNewSdkToken();
        libconfig::Setting& list = root.add("capability_list", libconfig::Setting::TypeArray);
        for (const std::string& capability : capabilities) {
            list.add(libconfig::Setting::TypeString) = capability;
        }
        datacenter::Directory::sCreateDirectory(developerRoot + "etc");
        datacenter::LibconfigFile::sWrite(document, manifest);
    } catch (const std::exception& e) {
        LOG(ERROR) << "generatePluginSSHManifest save config file error: " << e.what();
    }
    datacenter::File::sRawCopyFile(manifest, sGetPluginRootPath() + sDeveloperSSHInfoManifest);
    return API_SUCCESS;
}
