#include "download/strategy/XunleiApiRequest.h"

#include <curl/curl.h>
#include <glog/logging.h>
#include <json-c/json.h>

#include <iostream>
#include <map>

#include "storage/File.h"
#include "system/RootPrefix.h"
#include "system/WebRequest.h"

namespace datacenter {
namespace {

const char* const kResetFlagFile = "/userdisk/reset_flag_file";
const int kCurlTimedOut = 28;

const std::map<int, ApiErrorCode>& serviceCodes() {
    static const std::map<int, ApiErrorCode> codes = {
        {0, 0},       {107, 2033},  {112, 2008},  {201, 2016},   {202, 2010},   {203, 2017},    {204, 2008},
        {205, 2018},  {206, 2012},  {207, 2019},  {208, 2020},   {209, 2021},   {211, 2022},    {301, 2023},
        {302, 2024},  {303, 2025},  {1025, 2026}, {1624, 2027},  {2750, 2028},  {4112, 2016},   {4200, 2016},
        {4201, 2018}, {4202, 2029}, {4216, 2010}, {15400, 2030}, {15414, 2031}, {106509, 2008}, {108545, 2016},
    };
    return codes;
}

size_t appendToString(char* data, size_t size, size_t count, void* target) {
    if (data == nullptr || target == nullptr) {
        return static_cast<size_t>(-1);
    }
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

// True for a reply of the form [0, ...].
bool isUnbindConfirmation(json_object* reply) {
    if (reply == nullptr || !json_object_is_type(reply, json_type_array) || json_object_array_length(reply) == 0) {
        return false;
    }
    json_object* first = json_object_array_get_idx(reply, 0);
    return json_object_is_type(first, json_type_int) && json_object_get_int64(first) == 0;
}

}  // namespace

std::string XunleiApiRequest::sUrl_ = "http://127.0.0.1:9000/";
std::string XunleiApiRequest::sport_ = "";
std::string XunleiApiRequest::svertion_ = "2";
int XunleiApiRequest::sGetTimeoutSeconds_ = 5;

void XunleiApiRequest::sSetUrl(const std::string& url) {
    sUrl_ = url;
}

XunleiApiRequest::XunleiApiRequest(const std::string& path, const std::string& version)
    : url_(sUrl_ + path), version_(version) {}

void XunleiApiRequest::addPara(const std::string& name, const std::string& value) {
    if (!params_.empty()) {
        params_ += "&";
    }
    params_ += name + "=" + value;
}

void XunleiApiRequest::addParaToUrl() {
    if (!params_.empty()) {
        url_ += "?" + params_;
        if (!version_.empty()) {
            url_ += "&v=" + version_;
        }
    } else if (!version_.empty()) {
        url_ += "?v=" + version_;
    }
}

json_object* XunleiApiRequest::beginGetRequest(ApiErrorCode& code) {
    addParaToUrl();
    std::string reply;
    const int curlCode = WebRequest::Get(url_, reply, sGetTimeoutSeconds_);
    LOG(ERROR) << "beginGetRequest!!! url_:" << url_ << "code:" << curlCode << "result:" << reply;
    if (curlCode != 0) {
        code = curlCode == kCurlTimedOut ? API_XUNLEI_TIMEOUT : API_XUNLEI_TRANSPORT;
        LOG(INFO) << "errorcode:" << code;
        return nullptr;
    }
    return getResult(code, reply);
}

json_object* XunleiApiRequest::postForm(ApiErrorCode& code, const std::string& urls) {
    return postMultipart(code, "plUrls", WebRequest::urlencode(urls + "\r\n"), false);
}

json_object* XunleiApiRequest::uplodaFile(ApiErrorCode& code, const std::string& path) {
    return postMultipart(code, "filepath", path, true);
}

json_object* XunleiApiRequest::postMultipart(ApiErrorCode& code, const std::string& partName, const std::string& value,
                                             bool isFile) {
    addParaToUrl();
    LOG(INFO) << "url_:" << url_;
    std::string reply;
    curl_global_init(CURL_GLOBAL_ALL);
    CURL* curl = curl_easy_init();
    if (curl != nullptr) {
        curl_mime* form = curl_mime_init(curl);
        curl_mimepart* part = curl_mime_addpart(form);
        curl_mime_name(part, partName.c_str());
        if (isFile) {
            curl_mime_filedata(part, value.c_str());
        } else {
            curl_mime_data(part, value.c_str(), CURL_ZERO_TERMINATED);
        }
        curl_easy_setopt(curl, CURLOPT_URL, url_.c_str());
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, nullptr);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendToString);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reply);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(curl, CURLOPT_MIMEPOST, form);
        const CURLcode curlCode = curl_easy_perform(curl);
        LOG(INFO) << "post code is " << curlCode;
        LOG(INFO) << "post result is " << reply;
        curl_mime_free(form);
        curl_easy_cleanup(curl);
    }
    curl_global_cleanup();
    if (!isFile) {
        std::cout << "strResponse is " << reply << std::endl;
    }
    return getResult(code, reply);
}

json_object* XunleiApiRequest::getResult(ApiErrorCode& code, const std::string& text) {
    code = 0;
    enum json_tokener_error error = json_tokener_success;
    json_object* reply = json_tokener_parse_verbose(text.c_str(), &error);
    if (error != json_tokener_success) {
        json_object_put(reply);
        code = API_XUNLEI_BAD_REPLY;
        return nullptr;
    }
    json_object* rtn = nullptr;
    if (json_object_is_type(reply, json_type_object) && json_object_object_get_ex(reply, "rtn", &rtn) &&
        json_object_is_type(rtn, json_type_int)) {
        const int value = json_object_get_int(rtn);
        if (value != 0) {
            code = getErrorCode(value);
        }
    }
    return reply;
}

ApiErrorCode XunleiApiRequest::getErrorCode(int rtn) {
    const auto& codes = serviceCodes();
    const auto found = codes.find(rtn);
    return found == codes.end() ? API_XUNLEI_BAD_REPLY : found->second;
}

ApiErrorCode unbindXunleiRequest() {
    XunleiApiRequest request("unbind", "");
    ApiErrorCode code = 0;
    json_object* reply = request.beginGetRequest(code);
    LOG(WARNING) << "unbindXunleiRequest result: " << json_object_to_json_string(reply);
    const ApiErrorCode result = (code == 0 && isUnbindConfirmation(reply)) ? API_SUCCESS : API_UNBIND_FAILED;
    json_object_put(reply);
    return result;
}

ApiErrorCode tryUnbindXunleiAfterReset() {
    const std::string flagFile = RootPrefix::sPath(kResetFlagFile);
    if (!File::sExists(flagFile)) {
        return API_SUCCESS;
    }
    if (unbindXunleiRequest() == API_SUCCESS) {
        File::sDelete(flagFile);
        LOG(WARNING) << "unbindXunleiRequest succeed";
    } else {
        LOG(ERROR) << "unbindXunleiRequest failed";
    }
    return API_SUCCESS;
}

}  // namespace datacenter
