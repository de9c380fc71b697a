#pragma once
// Shows a running installation to an operator. On a terminal: one line
// redrawn in place with a bar, the download's percentage, size and rate, and
// the current step. Elsewhere (a pipe, a log file): plain lines without
// carriage returns, one per step and one per change of the download's
// percentage, then one when the download ends, so that a script can follow.
#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

namespace datacenter {
struct DownloadInfo;
struct DownloadRetry;
}  // namespace datacenter

class InstallProgressView {
public:
    InstallProgressView(std::ostream& out, bool terminal);

    // A step the installation entered.
    void step(const std::string& name);
    // The download's record, as often as it is read; repeats are harmless.
    void download(const datacenter::DownloadInfo& info);
    // An attempt of the download that failed and is followed by another, or
    // a restart of the file, on a line of its own (sRetryText).
    void retry(const datacenter::DownloadRetry& retry);
    // A message for the operator, on a line of its own.
    void note(const std::string& text);
    // Ends the display with `text` as its last line.
    void finish(const std::string& text);

    // "connection lost at 3.0 MiB, resuming in 2 s", "no data at 3.0 MiB
    // for too long, resuming in 1 s", "the server sent the whole file again
    // at 3.0 MiB: starting over".
    static std::string sRetryText(const datacenter::DownloadRetry& retry);
    // A byte count in binary units: "512 B", "1.5 KiB", "12.0 MiB".
    static std::string sHumanBytes(double bytes);

private:
    void redraw();
    // Leaves the redrawn line, so that a full line can follow.
    void endLine();
    std::string rateText() const;
    std::string sizeText() const;

    std::ostream& out_;
    bool terminal_;
    bool drawn_ = false;  // a redrawn line is on the screen
    std::string step_;
    bool downloadSeen_ = false;
    bool downloadEnded_ = false;
    int percent_ = -1;  // last shown; -1 before any
    int64_t downloaded_ = 0;
    int64_t total_ = 0;
    std::chrono::steady_clock::time_point start_;  // the view's construction, when the installation starts
    double seconds_ = 0;                           // from start_ to the last look at the download
};
