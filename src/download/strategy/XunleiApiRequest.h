#pragma once
// One request to the local download service's HTTP API: builds the URL from
// the API path, the parameters and the version, sends it and turns the JSON
// reply's "rtn" code into an ApiErrorCode.
#include <string>

#include "common/ApiErrorCode.h"

struct json_object;

namespace datacenter {

class XunleiApiRequest {
public:
    // Base URL of the download service's API, "http://127.0.0.1:9000/".
    static std::string sUrl_;
    // Port and default API version of the service; kept for callers, unused here.
    static std::string sport_;
    static std::string svertion_;
    // Seconds a GET may take to connect; the whole GET may take twice this.
    static int sGetTimeoutSeconds_;

    // Points every later request at another base URL (ending in "/").
    static void sSetUrl(const std::string& url);

    // `path` is appended to the base URL; a non-empty `version` is sent as "v".
    XunleiApiRequest(const std::string& path, const std::string& version);
    virtual ~XunleiApiRequest() = default;

    // Adds "name=value" to the query; neither is encoded.
    void addPara(const std::string& name, const std::string& value);
    // Appends the query (parameters, then "v") to the URL. Call it once.
    void addParaToUrl();

    // Sends the request as a GET. Returns the parsed reply, owned by the caller
    // (release with json_object_put), or null; `code` is 0, the mapped "rtn",
    // 2013 for a reply that is not JSON, 2014 on a time-out, 2015 on any other
    // transport failure.
    json_object* beginGetRequest(ApiErrorCode& code);
    // POSTs a form with the part "plUrls" holding `urls`. Result as
    // beginGetRequest, except that a failed transfer yields 2013.
    json_object* postForm(ApiErrorCode& code, const std::string& urls);
    // POSTs a form that uploads the file at `path` as part "filepath". Result
    // as postForm.
    json_object* uplodaFile(ApiErrorCode& code, const std::string& path);
    // Parses a reply text: null and 2013 when it is not JSON; otherwise the
    // parsed value, with `code` taken from an integer "rtn" member (0 if none).
    json_object* getResult(ApiErrorCode& code, const std::string& text);

    // The ApiErrorCode for a service result code; 2013 for unknown ones.
    static ApiErrorCode getErrorCode(int rtn);

    const std::string& url() const { return url_; }

private:
    json_object* postMultipart(ApiErrorCode& code, const std::string& partName, const std::string& value, bool isFile);

    std::string url_;
    std::string params_;
    std::string version_;
};

// Asks the download service to unbind from the user's account. Returns 0 when
// it answered [0], else 2520 (no service, an error or any other reply).
ApiErrorCode unbindXunleiRequest();

// After a factory reset (the flag file "/userdisk/reset_flag_file" exists)
// unbinds the download service and removes the flag once that succeeded; a
// failure keeps the flag for the next start. Always returns 0.
ApiErrorCode tryUnbindXunleiAfterReset();

}  // namespace datacenter
