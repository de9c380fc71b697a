// Replies of the download service, parsed by XunleiApiRequest::getResult:
// either a parsed value (the caller owns it) with a known code, or null with
// the "bad reply" code.
#include <json-c/json.h>

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "download/strategy/XunleiApiRequest.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    datacenter::XunleiApiRequest request("query", "");
    ApiErrorCode code = -1;
    json_object* reply = request.getResult(code, std::string(reinterpret_cast<const char*>(data), size));
    // Null is either the JSON literal null (code 0) or a parse failure (bad reply).
    if (!reply && code != API_SUCCESS && code != API_XUNLEI_BAD_REPLY) {
        fuzzsupport::fail("null reply with code " + std::to_string(code));
    }
    json_object_put(reply);
    return 0;
}
