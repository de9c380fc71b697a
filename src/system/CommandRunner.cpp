#include "system/CommandRunner.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace datacenter {
namespace {

class RealCommandRunner : public CommandRunner {
public:
    int runShell(const std::string& command) override { return ::system(command.c_str()); }

    bool runPipe(const std::string& command, std::string& output, int& status) override {
        FILE* pipe = ::popen(command.c_str(), "r");
        if (!pipe) {
            return false;
        }
        char piece[128];
        while (fgets(piece, sizeof(piece), pipe)) {
            output += piece;
        }
        status = ::pclose(pipe);
        return true;
    }
};

std::mutex gRunnerMutex;
std::shared_ptr<CommandRunner> gRunner;

}  // namespace

std::shared_ptr<CommandRunner> CommandRunner::sCurrent() {
    std::lock_guard<std::mutex> lock(gRunnerMutex);
    if (!gRunner) {
        gRunner = std::make_shared<RealCommandRunner>();
    }
    return gRunner;
}

void CommandRunner::sInstall(std::shared_ptr<CommandRunner> runner) {
    std::lock_guard<std::mutex> lock(gRunnerMutex);
    gRunner = std::move(runner);
}

}  // namespace datacenter
