#include "Plugin/PidMetrics.h"

#include <json-c/json.h>

#include <stdexcept>

namespace {

json_object* checked(json_object* object) {
    if (!object) {
        throw JsonObjectBadAllocException();
    }
    return object;
}

}  // namespace

JsonObjectBadAllocException::JsonObjectBadAllocException() : std::runtime_error("json object bad alloc") {}

json_object* pidMetricsToJson(const PidMetrics& metrics) {
    json_object* item = checked(json_object_new_object());
    try {
        json_object_object_add(item, "pid", checked(json_object_new_int(metrics.pid)));
        json_object_object_add(item, "cpuPercent", checked(json_object_new_double(metrics.cpuPercent)));
        json_object_object_add(item, "memPercent", checked(json_object_new_double(metrics.memPercent)));
        json_object_object_add(item, "readKBPerSec", checked(json_object_new_double(metrics.readKBPerSec)));
        json_object_object_add(item, "writeKBPerSec", checked(json_object_new_double(metrics.writeKBPerSec)));
    } catch (...) {
        json_object_put(item);
        throw;
    }
    return item;
}
