#pragma once
// The one place where the process environment is read.
#include <string>

namespace datacenter {

class Environment {
public:
    // Value of the variable, or the empty string when it is not set.
    static std::string sGet(const char* name);
    // Whole milliseconds from the variable, or `fallback` when it is unset or not a number.
    static long sGetMilliseconds(const char* name, long fallback);
    // Sleeps the calling thread.
    static void sSleepMilliseconds(long milliseconds);
};

}  // namespace datacenter
