#include "system/Environment.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace datacenter {
namespace {

std::atomic<long long> gSleptMilliseconds{0};

}  // namespace

std::string Environment::sGet(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

long Environment::sGetMilliseconds(const char* name, long fallback) {
    const std::string text = sGet(name);
    if (text.empty()) {
        return fallback;
    }
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || value < 0) {
        return fallback;
    }
    return value;
}

void Environment::sSleepMilliseconds(long milliseconds) {
    gSleptMilliseconds += milliseconds;
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

long long Environment::sSleptMilliseconds() {
    return gSleptMilliseconds;
}

void Environment::sPinTimeZone() {
    if (std::getenv("TZ") == nullptr) {
        setenv("TZ", ":/etc/localtime", 0);
    }
}

}  // namespace datacenter
