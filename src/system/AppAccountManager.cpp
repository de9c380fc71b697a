#include "system/AppAccountManager.h"

#include <glog/logging.h>
#include <json-c/json.h>
#include <time.h>

#include <mutex>

#include "DataBase/PluginStorageManager.h"
#include "common/Singleton.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/WebRequest.h"
#include "tools/Statistics.h"

namespace {

const char* const kDefaultServerBase = "http://api.korvia.net";
const int kRequestTimeoutSeconds = 2;

std::mutex gBaseMutex;
std::string gServerBase = kDefaultServerBase;

struct JsonReply {
    json_object* root = nullptr;
    ~JsonReply() { json_object_put(root); }
};

// GETs the summary and reports its wall-clock duration as a statistics point.
bool querySummary(const std::string& query, std::string& response) {
    const std::string url = AppAccountManager::sServerBase() + "/plugin/v2/summary?" + query;
    timespec start;
    timespec end;
    clock_gettime(CLOCK_REALTIME, &start);
    const int result = WebRequest::Get(url, response, kRequestTimeoutSeconds);
    clock_gettime(CLOCK_REALTIME, &end);
    const long long ms = static_cast<long long>(end.tv_sec - start.tv_sec) * 1000 +
                         (static_cast<long long>(end.tv_nsec) - start.tv_nsec) / 1000000;
    Statistics::statOnce("datacenter_api_duration", "get_app_id_from_server:" + std::to_string(ms));
    LOG(INFO) << "app info response is: " << response;
    return result == 0;
}

// True when the reply is a JSON object whose "code" is 0.
bool replySucceeded(JsonReply& reply, const std::string& response) {
    reply.root = json_tokener_parse(response.c_str());
    json_object* code = nullptr;
    return reply.root && json_object_is_type(reply.root, json_type_object) &&
           json_object_object_get_ex(reply.root, "code", &code) && json_object_is_type(code, json_type_int) &&
           json_object_get_int(code) == 0;
}

}  // namespace

std::string AppAccountManager::sServerBase() {
    std::lock_guard<std::mutex> lock(gBaseMutex);
    return gServerBase;
}

void AppAccountManager::sSetServerBase(const std::string& base) {
    std::lock_guard<std::mutex> lock(gBaseMutex);
    gServerBase = base;
}

bool AppAccountManager::IsValidAppId(const std::string& appId) {
    if (appId.empty()) {
        LOG(ERROR) << "appid is empty.";
        return false;
    }
    datacenter::ConfigInfo* config = datacenter::ConfigInfo::sGetInstance();
    const std::string cacheKey = "app_exist_" + appId;
    if (!config->getConfig(cacheKey).empty()) {
        return true;
    }
    if (!Singleton<PluginStorageManager>::instance()->getPluginInfoById(appId).id.empty()) {
        LOG(INFO) << "appid is valid due to find it in plugin in storage folder.";
        return true;
    }
    std::string response;
    JsonReply reply;
    if (querySummary("appId=" + appId, response) && replySucceeded(reply, response)) {
        config->setConfig(cacheKey, "exist");
        return true;
    }
    return false;
}

bool AppAccountManager::isSupportedCountryCode(const std::string& appId, const std::string& countryCode,
                                               const std::string& appVersion) {
    if (appId.empty() || countryCode.empty() || appVersion.empty()) {
        LOG(ERROR) << "code is empty.";
        return false;
    }
    std::string response;
    JsonReply reply;
    if (!querySummary("appId=" + appId + "&appVersion=" + appVersion, response) || !replySucceeded(reply, response)) {
        return false;
    }
    json_object* countries = nullptr;
    if (!json_object_object_get_ex(reply.root, "countryCode", &countries) ||
        !json_object_is_type(countries, json_type_string)) {
        return false;
    }
    for (const std::string& piece : CommonUtils::splitStringTokenCompress(json_object_get_string(countries), ",")) {
        if (piece == countryCode) {
            return true;
        }
    }
    return false;
}
