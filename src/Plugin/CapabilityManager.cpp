#include "Plugin/CapabilityManager.h"

CapabilityManager::CapabilityManager() {
    initData();
}

CapabilityManager::~CapabilityManager() = default;

void CapabilityManager::initData() {
    capabilities_ = {
        {"access_userdata", "访问路由共享盘权限", true},
        {"support_auto_restart", "", false},
        {"access_proc", "", false},
        {"access_dev", "", false},
        {"access_cache_dir", "访问nginx预下载目录", false},
        {"support_download", "路由器下载引擎权限", true},
        {"support_vpn_operation", "vpn操作权限", true},
        {"support_connected_device_info", "获取链接设备信息权限", true},
        {"support_usb_disk_mount", "u盘访问权限", true},
        {"support_notify_file_changed", "文件变化通知", true},
    };
}

std::vector<PluginCapability> CapabilityManager::getList(bool visibleOnly) const {
    std::vector<PluginCapability> rows;
    for (const PluginCapability& row : capabilities_) {
        if (!visibleOnly || row.visible) {
            rows.push_back(row);
        }
    }
    return rows;
}
