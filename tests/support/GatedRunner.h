#pragma once
// A command runner whose commands (those containing a fragment, or all)
// wait until the test opens the gate, noting when each begins and ends;
// every command succeeds without running anything.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "system/CommandRunner.h"

namespace testsupport {

class GatedRunner : public datacenter::CommandRunner {
public:
    explicit GatedRunner(const std::string& fragment = "") : fragment_(fragment) {}

    int runShell(const std::string& command) override {
        if (command.find(fragment_) == std::string::npos) {
            return 0;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        events_.push_back("begin " + command);
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
        events_.push_back("end " + command);
        return 0;
    }
    bool runPipe(const std::string& command, std::string&, int& status) override {
        status = runShell(command);
        return true;
    }
    std::vector<std::string> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    // Waits (with a generous bound) until `count` events were noted.
    bool waitForEvents(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30), [&] { return events_.size() >= count; });
    }
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    const std::string fragment_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
    bool open_ = false;
};

}  // namespace testsupport
