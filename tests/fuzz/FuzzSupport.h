#pragma once
// Shared set-up of the fuzz targets: every target process runs under its own
// temporary DATACENTER_ROOT (removed at exit), so whatever an input makes the
// code write stays in that directory.
#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzzsupport {

// The temporary root of this process, created and exported on first use.
const std::string& root();
// `absolutePath` below the root.
std::string underRoot(const std::string& absolutePath);
// Writes `size` bytes to `path`, creating its parent directories.
void writeInput(const std::string& path, const uint8_t* data, size_t size);
// Every path below `dir` (files, links and directories), sorted, relative to it.
std::string listTree(const std::string& dir);
// Reports a broken guarantee and aborts, so that the fuzzer keeps the input.
[[noreturn]] void fail(const std::string& what);
// Quietens the library's logging, which would otherwise drown the fuzzer's output.
void quietLogs();

}  // namespace fuzzsupport
