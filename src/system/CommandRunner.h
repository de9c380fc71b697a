#pragma once
// The one way out to external commands. The real runner uses system() and
// popen(); tests install a runner of their own to see and script the exact
// command lines.
#include <memory>
#include <string>

namespace datacenter {

class CommandRunner {
public:
    virtual ~CommandRunner() = default;
    // Runs `command` through the shell; returns the wait status as system() does, or -1.
    virtual int runShell(const std::string& command) = 0;
    // Runs `command` with its standard output read into `output`. Returns false
    // when the command could not be started; `status` is the wait status as
    // pclose() returns it (-1 when pclose failed).
    virtual bool runPipe(const std::string& command, std::string& output, int& status) = 0;

    // The runner in use; the real one unless a test installed another.
    static std::shared_ptr<CommandRunner> sCurrent();
    // Installs `runner`; an empty pointer restores the real runner.
    static void sInstall(std::shared_ptr<CommandRunner> runner);
};

}  // namespace datacenter
