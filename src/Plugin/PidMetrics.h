#pragma once
// The resource use of one plugin process, as "top" and "pidstat -d" report it.
#include <cstdint>

struct PidMetrics {
    int32_t pid = 0;
    double cpuPercent = 0;
    double memPercent = 0;
    double readKBPerSec = 0;
    double writeKBPerSec = 0;
};
