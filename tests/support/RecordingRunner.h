#pragma once
// A command runner for unit tests: records every command line and answers
// with scripted exit codes and output instead of running anything.
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "system/CommandRunner.h"

namespace testsupport {

class RecordingRunner : public datacenter::CommandRunner {
public:
    struct Reply {
        int exitCode = 0;
        std::string output;
    };

    // Answers every command that contains `fragment` with `reply` (the first
    // matching fragment in insertion order wins); others exit 0 silently.
    void answer(const std::string& fragment, int exitCode, const std::string& output = "");
    std::vector<std::string> commands() const;
    bool ran(const std::string& fragment) const;

    int runShell(const std::string& command) override;
    bool runPipe(const std::string& command, std::string& output, int& status) override;

    // Installs a fresh recorder for the lifetime of the returned guard.
    struct Installed {
        std::shared_ptr<RecordingRunner> runner;
        ~Installed() { datacenter::CommandRunner::sInstall(nullptr); }
        RecordingRunner* operator->() const { return runner.get(); }
    };
    static Installed sInstall();

private:
    Reply replyFor(const std::string& command);

    mutable std::mutex mutex_;
    std::vector<std::string> commands_;
    std::vector<std::pair<std::string, Reply>> replies_;
};

}  // namespace testsupport
