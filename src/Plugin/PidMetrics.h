#pragma once
// The resource use of one plugin process, as "top" and "pidstat -d" report it.
#include <cstdint>
#include <stdexcept>

struct json_object;

struct PidMetrics {
    int32_t pid = 0;
    double cpuPercent = 0;
    double memPercent = 0;
    double readKBPerSec = 0;
    double writeKBPerSec = 0;
};

// Raised when json-c cannot allocate an object.
class JsonObjectBadAllocException : public std::runtime_error {
public:
    JsonObjectBadAllocException();
};

// A new JSON object {"pid", "cpuPercent", "memPercent", "readKBPerSec",
// "writeKBPerSec"} owned by the caller; throws JsonObjectBadAllocException.
json_object* pidMetricsToJson(const PidMetrics& metrics);
