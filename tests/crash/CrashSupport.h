#pragma once
// Shared by the kill tests: a seeded generator whose seed is printed (set
// DATACENTER_CRASH_SEED to replay a run), and a strict parse of a libconfig
// file that repairs nothing.
#include <cstdlib>
#include <iostream>
#include <libconfig.h++>
#include <random>
#include <string>

namespace crashtest {

inline std::mt19937 seededGenerator(const char* testName) {
    const char* given = std::getenv("DATACENTER_CRASH_SEED");
    const unsigned seed = given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::cout << testName << ": DATACENTER_CRASH_SEED=" << seed << std::endl;
    return std::mt19937(seed);
}

// The string value of `key` in the file, or false when the file does not parse.
inline bool readValue(const std::string& path, const std::string& key, std::string& value) {
    try {
        libconfig::Config config;
        config.readFile(path.c_str());
        value.clear();
        config.lookupValue(key, value);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace crashtest
