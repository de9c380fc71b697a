#pragma once
// Collects the glog lines written while it exists, for tests that check the
// system's own messages.
#include <glog/logging.h>

#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

class LogCapture : public google::LogSink {
public:
    LogCapture() { google::AddLogSink(this); }
    ~LogCapture() override { google::RemoveLogSink(this); }
    void send(google::LogSeverity, const char*, const char*, int, const struct ::tm*, const char* message,
              size_t length) override {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.emplace_back(message, length);
    }
    // True when a captured line contains `text`.
    bool contains(const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const std::string& line : lines_) {
            if (line.find(text) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace testsupport
