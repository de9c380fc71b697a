#pragma once
// Helpers shared by the tests. Every test process runs under its own fresh
// temporary root (DATACENTER_ROOT), removed when the process ends.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

// The temporary root of this test process.
const std::string& root();
// `absolutePath` under the root, the way the core prefixes its fixed paths.
std::string underRoot(const std::string& absolutePath);
// A new empty directory below the root.
std::string makeScratchDir(const std::string& name);
// Lays out a simulated router in `dir` with sim/make-root (its CA taken from
// `caFile` when given); throws when that fails.
void layOutRouter(const std::string& dir, const std::string& caFile = "");

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
// `size` bytes that do not compress (a linear congruential sequence from
// `seed`), so that a package is as large as its files.
std::string noise(size_t size, uint32_t seed = 12345);
// Everything in the open file `fd`, read by offset from its start.
std::string readFd(int fd);
std::vector<std::string> readLines(const std::string& path);

struct CommandResult {
    int exitStatus = -1;
    std::string output;  // standard output only
};
// Runs a shell command, capturing its standard output.
CommandResult runCommand(const std::string& command);

// Runs a program of the build's apps/ folder under the test root with the
// installer's start-up delay off; standard error is dropped unless
// `withErrors`, when it is merged into the output.
CommandResult runApp(const std::string& name, const std::string& args, bool withErrors = false);
// The installer's outcome: its output from the last line that names it on
// (the steps print before it).
std::string installOutcome(const std::string& output);

// Everything below `dir` in name order, one line each, paths relative to
// `dir`: "path/" for a folder, "path -> target" for a link (never followed),
// "path: content" for a file, its line ends shown as "\n" (only "path" when
// not `withContent`). Empty when `dir` is missing.
std::string treeText(const std::string& dir, bool withContent = true);

// Whether anything (a dangling link too) is at `path`.
bool exists(const std::string& path);
// Polls `condition` until it holds or a minute has passed; its last answer.
bool waitUntil(const std::function<bool()>& condition);
// `work` run in a forked child process; its result is the child's exit
// status, -1 when the child did not exit normally.
int inChildProcess(const std::function<int()>& work);

// A port on the loopback host where nothing listens.
int closedLoopbackPort();

// Paths of the source and build trees.
std::string sourceDir();
std::string buildDir();

}  // namespace testsupport
