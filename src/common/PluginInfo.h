#pragma once
// The plugin record and the small enumerations that travel with it. A record
// whose id is empty stands for "no such plugin": look-ups return it instead
// of failing.
#include <cstdint>
#include <string>
#include <vector>

#include "common/ApiErrorCode.h"

namespace datacenter {

enum PluginStatus : int32_t {
    NOT_INSTALLED = 0,
    DOWNLOADING = 2,
    INSTALLING = 3,
    ENABLED = 5,
    DISABLED = 6,
};

// A mark owned by callers; no value is interpreted here, and any 32-bit value
// must survive a round trip through the manifest.
enum PluginUseStatus : int32_t {
    USE_STATUS_NONE = 0,
};

enum PluginSetValueType : int32_t {
    PORT = 0,
    PID = 1,
};

struct PluginInfo {
    std::string id;
    std::string name;
    std::string smallIcon;
    std::string largeIcon;
    std::string developer;
    std::string version;
    std::string introduction;
    PluginStatus status = NOT_INSTALLED;
    PluginUseStatus useStatus = USE_STATUS_NONE;
    std::string reservedText1;
    int32_t capability = 0;
    std::string devId;
    std::string title;
    std::string rootPath;
    std::string reservedText2;
    std::string binaryName;
    std::string controlUrl;
    int32_t type = 0;
    int64_t limitSize = 0;
    int32_t progress = 0;
    int32_t sdkLevel = 1;
    std::vector<std::string> modelList;
    std::vector<std::string> capabilityList;
    std::string marketIcon;
    std::string installedIcon;
    std::string detailImage;
    std::string sdkToken;
    std::string authorizeId;
    ApiErrorCode errorCode = API_SUCCESS;
    std::string supportedRomVersion;
    int32_t installTime = 0;
    bool reservedFlag = false;
};

}  // namespace datacenter
