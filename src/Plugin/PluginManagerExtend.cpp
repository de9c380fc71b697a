#include "Plugin/PluginManagerExtend.h"

#include "download/strategy/XunleiApiRequest.h"

namespace datacenter {

namespace {
const char* const kDownloadServicePluginId = "5017400000000000002";
}

void PluginManagerExtend::sInitExtend() {
    tryUnbindXunleiAfterReset();
}

void PluginManagerExtend::sProcessFakePluginsWhenInstall(const std::string& id) {
    if (id == kDownloadServicePluginId) {
        tryUnbindXunleiAfterReset();
    }
}

}  // namespace datacenter
