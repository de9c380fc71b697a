#include "support/RecordingRunner.h"

namespace testsupport {

void RecordingRunner::answer(const std::string& fragment, int exitCode, const std::string& output) {
    std::lock_guard<std::mutex> lock(mutex_);
    replies_.push_back({fragment, Reply{exitCode, output}});
}

std::vector<std::string> RecordingRunner::commands() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return commands_;
}

bool RecordingRunner::ran(const std::string& fragment) const {
    for (const std::string& command : commands()) {
        if (command.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

RecordingRunner::Reply RecordingRunner::replyFor(const std::string& command) {
    std::lock_guard<std::mutex> lock(mutex_);
    commands_.push_back(command);
    for (const auto& entry : replies_) {
        if (command.find(entry.first) != std::string::npos) {
            return entry.second;
        }
    }
    return Reply();
}

int RecordingRunner::runShell(const std::string& command) {
    return (replyFor(command).exitCode & 0xff) << 8;
}

bool RecordingRunner::runPipe(const std::string& command, std::string& output, int& status) {
    const Reply reply = replyFor(command);
    output += reply.output;
    status = (reply.exitCode & 0xff) << 8;
    return true;
}

RecordingRunner::Installed RecordingRunner::sInstall() {
    Installed installed{std::make_shared<RecordingRunner>()};
    datacenter::CommandRunner::sInstall(installed.runner);
    return installed;
}

}  // namespace testsupport
