#include "Plugin/InstallProgressView.h"

#include <cstdio>

#include "system/CurlDownloader.h"

namespace {

const int kBarWidth = 24;

}  // namespace

InstallProgressView::InstallProgressView(std::ostream& out, bool terminal)
    : out_(out), terminal_(terminal), start_(std::chrono::steady_clock::now()) {}

std::string InstallProgressView::sHumanBytes(double bytes) {
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    while (bytes >= 1024 && unit + 1 < sizeof(units) / sizeof(units[0])) {
        bytes /= 1024;
        ++unit;
    }
    char text[32];
    if (unit == 0) {
        std::snprintf(text, sizeof(text), "%.0f B", bytes);
    } else {
        std::snprintf(text, sizeof(text), "%.1f %s", bytes, units[unit]);
    }
    return text;
}

std::string InstallProgressView::rateText() const {
    // The average since the installation began: steadier than the last
    // interval, and known even for a download that ended between two looks.
    const double rate = seconds_ > 0.001 ? static_cast<double>(downloaded_) / seconds_ : 0;
    return sHumanBytes(rate) + "/s";
}

std::string InstallProgressView::sizeText() const {
    if (total_ <= 0) {
        return sHumanBytes(static_cast<double>(downloaded_));  // no length announced
    }
    return sHumanBytes(static_cast<double>(downloaded_)) + " of " + sHumanBytes(static_cast<double>(total_));
}

void InstallProgressView::step(const std::string& name) {
    step_ = name;
    if (terminal_) {
        redraw();
    } else {
        out_ << "step " << name << std::endl;
    }
}

void InstallProgressView::download(const datacenter::DownloadInfo& info) {
    if (downloadEnded_) {
        return;
    }
    downloadSeen_ = true;
    seconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    downloaded_ = info.downloadedBytes;
    total_ = info.totalBytes;
    // A stopped transfer keeps the "stop requested" state and ends with its code.
    const bool ended = info.state == datacenter::DownloadInfo::sStateFinished ||
                       info.state == datacenter::DownloadInfo::sStateFailed || info.errorCode != API_SUCCESS;
    const int percent = static_cast<int>(info.percent);
    const bool changed = percent != percent_;
    percent_ = percent;
    if (ended) {
        downloadEnded_ = true;
    }
    if (terminal_) {
        if (changed || ended) {
            redraw();
        }
        return;
    }
    if (!ended) {
        if (changed) {
            out_ << "download " << percent << "%: " << sizeText() << " at " << rateText() << std::endl;
        }
        return;
    }
    if (info.errorCode == API_SUCCESS) {
        out_ << "download complete: " << sHumanBytes(static_cast<double>(downloaded_)) << " at " << rateText()
             << std::endl;
    } else if (info.errorCode == API_DOWNLOAD_STOPPED) {
        out_ << "download stopped at " << sizeText() << ", code " << info.errorCode << std::endl;
    } else {
        out_ << "download failed at " << sizeText() << ", code " << info.errorCode << std::endl;
    }
}

std::string InstallProgressView::sRetryText(const datacenter::DownloadRetry& retry) {
    const std::string at = sHumanBytes(static_cast<double>(retry.atBytes));
    if (retry.reason == datacenter::DownloadRetry::sRestarted) {
        return "the server sent the whole file again at " + at + ": starting over";
    }
    char wait[32];
    if (retry.waitMs % 1000 == 0) {
        std::snprintf(wait, sizeof(wait), "%ld s", retry.waitMs / 1000);
    } else {
        std::snprintf(wait, sizeof(wait), "%.1f s", static_cast<double>(retry.waitMs) / 1000);
    }
    const std::string what = retry.reason == datacenter::DownloadRetry::sStalled ? "no data at " + at + " for too long"
                                                                                 : "connection lost at " + at;
    return what + ", resuming in " + wait;
}

void InstallProgressView::retry(const datacenter::DownloadRetry& retry) {
    note(sRetryText(retry));
}

void InstallProgressView::redraw() {
    const int percent = percent_ < 0 ? 0 : (percent_ > 100 ? 100 : percent_);
    const int filled = percent * kBarWidth / 100;
    std::string line = "\r\033[K[" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] ";
    const std::string number = std::to_string(percent) + "%";
    line += std::string(number.size() < 4 ? 4 - number.size() : 0, ' ') + number;
    if (downloadSeen_) {
        line += "  " + sizeText() + "  " + rateText();
    }
    out_ << line << "  " << step_ << std::flush;
    drawn_ = true;
}

void InstallProgressView::endLine() {
    if (drawn_) {
        out_ << '\n';
        drawn_ = false;
    }
}

void InstallProgressView::note(const std::string& text) {
    endLine();
    out_ << text << std::endl;
    if (terminal_ && !step_.empty()) {
        redraw();
    }
}

void InstallProgressView::finish(const std::string& text) {
    endLine();
    out_ << text << std::endl;
}
