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
    // The milliseconds this process has slept through sSleepMilliseconds so
    // far: which waits a step made, without timing it.
    static long long sSleptMilliseconds();
    // For the start of a program, before any thread starts: names the
    // system's time zone file in TZ when TZ is unset. The zone stays the
    // same, but the C library no longer looks at the file again on every
    // time conversion, and libzip converts the time of every entry of an
    // archive it opens (two opens of a 3,000-file package: 6,000 looks).
    static void sPinTimeZone();
};

}  // namespace datacenter
