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
    void send(google::LogSeverity severity, const char*, const char*, int, const struct ::tm*, const char* message,
              size_t length) override {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.emplace_back(message, length);
        severities_.push_back(severity);
    }
    struct Line {
        google::LogSeverity severity;
        std::string text;
    };
    // Every captured line with its severity, in order.
    std::vector<Line> records() const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Line> result;
        for (size_t i = 0; i < lines_.size(); ++i) {
            result.push_back(Line{severities_[i], lines_[i]});
        }
        return result;
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
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::vector<google::LogSeverity> severities_;
};

}  // namespace testsupport
