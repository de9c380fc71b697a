#include "system/DownloadPolicy.h"

#include <algorithm>

#include "system/Environment.h"

namespace datacenter {

DownloadLimits DownloadLimits::sFromEnvironment() {
    DownloadLimits limits;
    limits.connectMs = Environment::sGetMilliseconds("DATACENTER_DOWNLOAD_CONNECT_MS", limits.connectMs);
    limits.stallMs = Environment::sGetMilliseconds("DATACENTER_DOWNLOAD_STALL_MS", limits.stallMs);
    limits.quietMs = Environment::sGetMilliseconds("DATACENTER_DOWNLOAD_QUIET_MS", limits.quietMs);
    limits.totalMs = Environment::sGetMilliseconds("DATACENTER_DOWNLOAD_TOTAL_MS", limits.totalMs);
    limits.backoffMs = Environment::sGetMilliseconds("DATACENTER_DOWNLOAD_BACKOFF_MS", limits.backoffMs);
    limits.retries = Environment::sGetMilliseconds("DATACENTER_DOWNLOAD_RETRIES", limits.retries);
    // A zero would end every attempt at once (or never wait at all).
    limits.connectMs = std::max(1L, limits.connectMs);
    limits.stallMs = std::max(1L, limits.stallMs);
    limits.quietMs = std::max(limits.stallMs, limits.quietMs);
    limits.totalMs = std::max(1L, limits.totalMs);
    return limits;
}

RetryPlan::RetryPlan(const DownloadLimits& limits)
    : first_(limits.backoffMs), ceiling_(limits.backoffMs * 30), retries_(limits.retries) {}

long RetryPlan::next(bool received, bool advanced) {
    fruitless_ = advanced ? 0 : fruitless_ + 1;
    if (fruitless_ > retries_) {
        return -1;
    }
    wait_ = (received || wait_ == 0) ? first_ : std::min(ceiling_, wait_ * 2);
    return wait_;
}

}  // namespace datacenter
