#pragma once
// A throw-away root (DATACENTER_ROOT) for a benchmark program, made before
// any code of the core reads it, and the files the benchmarks work on.
#include <string>

namespace bench {

// Creates the root, points DATACENTER_ROOT at it and starts glog with its
// log files inside the root. Call first thing in main().
void makeRoot(const char* programName);
// `absolutePath` below the root.
std::string underRoot(const std::string& absolutePath);
void writeFile(const std::string& path, const std::string& content);
// A manifest with the keys an installed plugin's manifest carries.
std::string manifestText(const std::string& id);
// Removes the root; call at the end of main().
void removeRoot();

}  // namespace bench
