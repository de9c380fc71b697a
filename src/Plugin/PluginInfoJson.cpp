#include "Plugin/PluginInfoJson.h"

#include <json-c/json.h>

#include "Plugin/PidMetrics.h"

namespace {

json_object* checked(json_object* object) {
    if (!object) {
        throw JsonObjectBadAllocException();
    }
    return object;
}

void addString(json_object* item, const char* key, const std::string& value) {
    json_object_object_add(item, key, checked(json_object_new_string(value.c_str())));
}

void addInt(json_object* item, const char* key, int64_t value) {
    json_object_object_add(item, key, checked(json_object_new_int64(value)));
}

}  // namespace

json_object* pluginInfoToJson(const datacenter::PluginInfo& info) {
    json_object* item = checked(json_object_new_object());
    try {
        addString(item, "id", info.id);
        addString(item, "name", info.name);
        addString(item, "title", info.title);
        addString(item, "version", info.version);
        addString(item, "developer", info.developer);
        addInt(item, "status", info.status);
        addInt(item, "progress", info.progress);
        addInt(item, "errorCode", info.errorCode);
        addString(item, "binaryName", info.binaryName);
        addInt(item, "sdkLevel", info.sdkLevel);
        addString(item, "supportedRomVersion", info.supportedRomVersion);
        addInt(item, "installTime", info.installTime);
        json_object* capabilities = checked(json_object_new_array());
        json_object_object_add(item, "capabilities", capabilities);
        for (const std::string& name : info.capabilityList) {
            json_object_array_add(capabilities, checked(json_object_new_string(name.c_str())));
        }
    } catch (...) {
        json_object_put(item);
        throw;
    }
    return item;
}
