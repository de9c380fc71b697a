#pragma once
// The plugin record as JSON, for the operator's tools and scripts that read them.
#include "common/PluginInfo.h"

struct json_object;

// A new JSON object owned by the caller: "id", "name", "title", "version",
// "developer", "status", "progress", "errorCode", "binaryName", "sdkLevel",
// "supportedRomVersion", "installTime" and "capabilities" (an array of
// names). Throws JsonObjectBadAllocException when json-c cannot allocate.
json_object* pluginInfoToJson(const datacenter::PluginInfo& info);
