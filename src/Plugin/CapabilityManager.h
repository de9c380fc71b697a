#pragma once
// The capabilities a plugin can ask for in its manifest ("capability_list"):
// some become mounts of its chroot sandbox, the others are rights that
// services check with the plugin's token.
#include <string>
#include <vector>

struct PluginCapability {
    std::string name;         // the key written in manifests
    std::string description;  // UTF-8 text shown to users, may be empty
    bool visible = false;     // listed to users
};

class CapabilityManager {
public:
    CapabilityManager();
    virtual ~CapabilityManager();

    // The rows in table order; with `visibleOnly` only those listed to users.
    std::vector<PluginCapability> getList(bool visibleOnly) const;

private:
    void initData();

    std::vector<PluginCapability> capabilities_;
};
