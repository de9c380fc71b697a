#pragma once
// Start-up and post-uninstall hooks of the plugin manager.
#include <string>

namespace datacenter {

class PluginManagerExtend {
public:
    // Runs the download service's unbinding after a factory reset, if one is pending.
    static void sInitExtend();
    // Kept for registering further kinds; registers nothing.
    template <class Factory>
    static void sInitPlugins(Factory*) {}
    // After the download-service plugin is uninstalled, run its pending unbinding.
    static void sProcessFakePluginsWhenInstall(const std::string& id);
};

}  // namespace datacenter
