#include "Plugin/BinaryPluginManger.h"

#include <glog/logging.h>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/PluginId.h"
#include "common/Singleton.h"
#include "system/CommonUtils.h"
#include "system/DeviceMountInfo.h"
#include "system/RootPrefix.h"

namespace datacenter {

const std::string BinaryPluginManger::sPrepareChrootScriptPath = "prepare_chroot.sh";
const std::string BinaryPluginManger::sMountUserdataScriptPath = "mount_userdata.sh";
const std::string BinaryPluginManger::sPrepareSupervisordPath = "prepare_supervisord.sh";
const std::string BinaryPluginManger::sPrepareProcPath = "prepare_mount_proc.sh";
const std::string BinaryPluginManger::sPrepareDevPath = "prepare_mount_dev.sh";
const std::string BinaryPluginManger::sPrepareCacheDirPath = "prepare_mount_cache_dir.sh";
const std::string BinaryPluginManger::sCacheDirPath = "/userdisk/data/.cache_dir";

namespace {

struct MountStep {
    const char* capability;
    std::string command;
    const char* failure;
};

// Runs a mount script; on a start failure logs `failure` and the output.
ApiErrorCode runMount(const std::string& command, const char* failure) {
    std::string output;
    if (!CommonUtils::sCallSystem(command, output)) {
        LOG(ERROR) << failure << output;
        return API_FAILED;
    }
    return API_SUCCESS;
}

// Mount points end up in a command line below the sandbox: only plain path
// characters pass, and no "." or ".." component that could point the command
// at a folder outside it.
bool isPlainPath(const std::string& path) {
    if (path.empty() || path.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./-") !=
                            std::string::npos) {
        return false;
    }
    const std::string wrapped = "/" + path + "/";
    return wrapped.find("/./") == std::string::npos && wrapped.find("/../") == std::string::npos;
}

}  // namespace

ApiErrorCode BinaryPluginManger::prepareChroot(const std::string& id, std::string& output) {
    if (id.empty()) {
        LOG(ERROR) << "prepareChroot para empty!";
        return API_FAILED;
    }
    if (!isSafePluginId(id)) {
        LOG(ERROR) << "prepareChroot: invalid plugin id '" << id << "'";
        return API_FAILED;
    }
    const std::string dir = PluginManager::sGetPluginDataPath(id);
    if (!CommonUtils::sCallSystem(sPrepareChrootScriptPath + " " + dir + " " + PluginManager::sGetPluginRootPath(),
                                  output)) {
        LOG(ERROR) << "prepare Chroot Error. " << output;
        return API_FAILED;
    }
    if (!output.empty() && output.back() == '\n') {
        output.pop_back();
    }
    const PluginInfo info = Singleton<PluginStorageManager>::instance()->getPluginInfoById(id);
    LOG(INFO) << "prepareChroot plugin  capabilityList begin";
    for (const std::string& capability : info.capabilityList) {
        parseCapability(capability, dir);
    }
    return API_SUCCESS;
}

ApiErrorCode BinaryPluginManger::parseCapability(const std::string& capability, const std::string& dir) {
    LOG(INFO) << "parseCapability capabilityList " << capability;
    const MountStep steps[] = {
        {"access_userdata", sMountUserdataScriptPath + " " + dir + " " + RootPrefix::sPath("/userdisk/"),
         "mount userdata Error. "},
        {"support_auto_restart", sPrepareSupervisordPath + " " + dir, ""},
        {"access_proc", sPrepareProcPath + " " + dir, "mount proc Error. "},
        {"access_dev", sPrepareDevPath + " " + dir, "mount dev Error. "},
        {"access_cache_dir", sPrepareCacheDirPath + " " + dir + " " + RootPrefix::sPath(sCacheDirPath),
         "mount cache Error. "},
    };
    for (const MountStep& step : steps) {
        if (capability == step.capability) {
            return runMount(step.command, step.failure);
        }
    }
    return API_SUCCESS;
}

ApiErrorCode BinaryPluginManger::removePluginCapbility(const std::string& id) {
    if (!isSafePluginId(id)) {
        LOG(ERROR) << "removePluginCapbility: invalid plugin id '" << id << "'";
        return API_SUCCESS;
    }
    const PluginInfo info = Singleton<PluginStorageManager>::instance()->getPluginInfoById(id);
    for (const std::string& capability : info.capabilityList) {
        removeCapability(capability, PluginManager::sGetPluginDataPath(id));
    }
    return API_SUCCESS;
}

ApiErrorCode BinaryPluginManger::removeCapability(const std::string& capability, const std::string& dir) {
    LOG(INFO) << "removeCapability capabilityList " << capability;
    const std::pair<const char*, const char*> mounts[] = {
        {"access_userdata", "/userdata"},
        {"access_proc", "/proc"},
        {"access_dev", "/dev"},
        {"access_cache_dir", "/cache_dir"},
    };
    for (const auto& mount : mounts) {
        if (capability == mount.first) {
            CommonUtils::sCallSystem("umount " + dir + mount.second);
            return API_SUCCESS;
        }
    }
    if (capability == "support_usb_disk_mount") {
        const std::vector<MountInfo> devices = DeviceMountInfo::sGetHotplugDeviceMountInfo();
        LOG(INFO) << "Hotplug Device Mount count is " << devices.size();
        for (const MountInfo& device : devices) {
            LOG(INFO) << "Hotplug Device Mount Info " << device.mountPoint;
            mountHotplugDevice(dir, 2, device.mountPoint);
        }
    }
    return API_SUCCESS;
}

ApiErrorCode BinaryPluginManger::mountHotplugDevice(const std::string& dir, int action, const std::string& mountPoint) {
    if (action != 2) {
        return API_SUCCESS;
    }
    // The mount point as the router names it: the sandbox mirrors that path.
    std::string routerPath = mountPoint;
    if (!RootPrefix::sRoot().empty() && routerPath.compare(0, RootPrefix::sRoot().size(), RootPrefix::sRoot()) == 0) {
        routerPath = routerPath.substr(RootPrefix::sRoot().size());
    }
    if (!isPlainPath(routerPath)) {
        LOG(ERROR) << "mountHotplugDevice: refusing mount point '" << mountPoint << "'";
        return API_SUCCESS;
    }
    CommonUtils::sCallSystem("umount -lfd " + dir + routerPath);
    return API_SUCCESS;
}

}  // namespace datacenter
