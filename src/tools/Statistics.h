#pragma once
// Statistics points. The log line itself is the statistics point: a collector
// on the router picks up the WARNING lines that start with "stat_points_none ".
#include <string>

class Statistics {
public:
    // Logs "stat_points_none " + key + "=" + value at warning level.
    static void statOnce(const std::string& key, std::string value);
};
