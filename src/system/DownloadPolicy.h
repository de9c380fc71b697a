#pragma once
// How a download rides out a home network: when an attempt that makes no
// progress ends, whether and when a failed attempt is tried again, and when
// the whole download gives up. The settings are read from the environment
// (a router's init script, or a test that needs seconds instead of minutes).
#include <cstdint>

namespace datacenter {

struct DownloadLimits {
    // Connecting to the server, each attempt (DATACENTER_DOWNLOAD_CONNECT_MS).
    long connectMs = 30 * 1000;
    // An attempt that receives no byte for this long ends (DATACENTER_DOWNLOAD_STALL_MS).
    long stallMs = 60 * 1000;
    // The download ends when no byte has arrived for this long, whatever the
    // attempts (DATACENTER_DOWNLOAD_QUIET_MS). Longer than the stall, so
    // that one more attempt fits after a stalled one; short enough that a
    // server that stopped sending ends the installation within 90 seconds
    // of its last byte, the progress report's second of delay included.
    long quietMs = 85 * 1000;
    // The whole download (DATACENTER_DOWNLOAD_TOTAL_MS): 500 MB at 24 kB/s.
    long totalMs = 6L * 3600 * 1000;
    // The first wait before a new attempt (DATACENTER_DOWNLOAD_BACKOFF_MS);
    // it doubles while attempts receive nothing, up to 30 times this.
    long backoffMs = 1000;
    // An attempt that brings no byte beyond the most the file ever held may
    // be followed by at most this many more such attempts in a row
    // (DATACENTER_DOWNLOAD_RETRIES): the 9th of them ends the download.
    long retries = 8;

    // The defaults above, each replaced by its variable when that holds a
    // whole number of milliseconds (a count for the retries).
    static DownloadLimits sFromEnvironment();
};

// The waits between the attempts of one download.
class RetryPlan {
public:
    explicit RetryPlan(const DownloadLimits& limits);

    // After a failed attempt: `received` when it received any byte of the
    // file, `advanced` when the file got further than ever before. The wait
    // before the next attempt in milliseconds (the first wait again after an
    // attempt that received bytes, twice the last one otherwise, at most 30
    // times the first), or -1 when too many attempts in a row brought
    // nothing new.
    long next(bool received, bool advanced);

private:
    long first_;
    long ceiling_;
    long retries_;
    long wait_ = 0;       // the last wait; 0 before any
    long fruitless_ = 0;  // attempts in a row that did not advance the file
};

}  // namespace datacenter
