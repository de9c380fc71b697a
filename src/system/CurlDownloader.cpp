#include "system/CurlDownloader.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <unistd.h>

#include <algorithm>
#include <boost/bind/bind.hpp>
#include <boost/chrono.hpp>

#include "storage/File.h"
#include "system/CommonUtils.h"

namespace datacenter {

boost::mutex CurlDownloader::mutex_;

CurlDownloader::CurlDownloader(const std::string& url, const std::string& localPath, IDownloadTaskObserver* observer,
                               long timeoutSeconds)
    : observer_(observer), timeoutSeconds_(timeoutSeconds) {
    info_.url = url;
    info_.localPath = localPath;
}

CurlDownloader::~CurlDownloader() {
    // Only an output given but never downloaded into is still open here.
    if (file_ != nullptr) {
        fclose(file_);
    }
}

void CurlDownloader::beginDownloadSync() {
    curlhttpdownload();
}

void CurlDownloader::beginDownloadAsync() {
    thread_.reset(new boost::thread(boost::bind(&CurlDownloader::curlhttpdownload, this)));
}

void CurlDownloader::join() {
    if (thread_ && thread_->joinable()) {
        thread_->join();
    }
}

DownloadInfo CurlDownloader::getInfo() {
    boost::mutex::scoped_lock lock(mutex_);
    return info_;
}

void CurlDownloader::setState(int32_t state) {
    boost::mutex::scoped_lock lock(mutex_);
    info_.state = state;
}

void CurlDownloader::curlhttpdownload() {
    LOG(INFO) << "curlhttpdownload begin!";
    if (file_ == nullptr && !openOutputFile()) {
        failWith(API_DOWNLOAD_FAILED);
        notifyDownloadStatusChange();
        return;
    }
    limits_ = DownloadLimits::sFromEnvironment();
    plan_ = RetryPlan(limits_);
    const Clock::time_point start = Clock::now();
    long totalMs = limits_.totalMs;
    if (timeoutSeconds_ > 0) {
        totalMs = std::min(totalMs, timeoutSeconds_ * 1000);
    }
    deadline_ = start + std::chrono::milliseconds(totalMs);
    lastByte_ = start;
    for (int attempt = 1;; ++attempt) {
        attempt_ = attempt;
        curl_ = curl_easy_init();
        LOG(INFO) << info_.localPath << " curlhttpdownload curl_easy_init";
        Outcome outcome = Outcome::sFailed;
        try {
            performTransfer();
            outcome = recordTransferResult();
        } catch (...) {
            LOG(ERROR) << info_.localPath << " failed";
        }
        if (curl_ != nullptr) {
            curl_easy_cleanup(curl_);
            curl_ = nullptr;
        }
        if (outcome != Outcome::sRetry || !waitForNextAttempt(attempt)) {
            break;
        }
    }
    if (file_ != nullptr) {
        fclose(file_);
        file_ = nullptr;
    }
    notifyDownloadStatusChange();
}

std::vector<DownloadRetry> CurlDownloader::retries() {
    boost::mutex::scoped_lock lock(mutex_);
    return retries_;
}

void CurlDownloader::failWith(ApiErrorCode code) {
    boost::mutex::scoped_lock lock(mutex_);
    info_.errorCode = code;
    if (code != API_DOWNLOAD_STOPPED) {
        info_.state = DownloadInfo::sStateFailed;
    }
}

bool CurlDownloader::stopRequested() {
    boost::mutex::scoped_lock lock(mutex_);
    return info_.state == DownloadInfo::sStateStopRequested;
}

bool CurlDownloader::waitForNextAttempt(int attempt) {
    const long wait = plan_.next(received_, advanced_);
    const Clock::time_point now = Clock::now();
    const Clock::time_point resume = now + std::chrono::milliseconds(wait < 0 ? 0 : wait);
    if (wait < 0 || resume >= deadline_ || resume >= lastByte_ + std::chrono::milliseconds(limits_.quietMs)) {
        LOG(ERROR) << info_.localPath << " download gives up after " << attempt << " attempts at " << fileBytes_
                   << " bytes";
        failWith(API_DOWNLOAD_FAILED);
        return false;
    }
    DownloadRetry retry;
    retry.reason = stalled_ ? DownloadRetry::sStalled : DownloadRetry::sLost;
    retry.attempt = attempt;
    retry.atBytes = fileBytes_;
    retry.waitMs = wait;
    {
        boost::mutex::scoped_lock lock(mutex_);
        retries_.push_back(retry);
    }
    LOG(WARNING) << info_.localPath << " download attempt " << attempt << (stalled_ ? " stalled" : " lost") << " at "
                 << fileBytes_ << " bytes, next attempt in " << wait << " ms";
    // Sliced, so that a stop request ends the wait at once.
    for (;;) {
        if (stopRequested()) {
            failWith(API_DOWNLOAD_STOPPED);
            return false;
        }
        const Clock::time_point slice = Clock::now();
        if (slice >= resume) {
            return true;
        }
        boost::this_thread::sleep_for(boost::chrono::milliseconds(
            std::min<long>(50, std::chrono::duration_cast<std::chrono::milliseconds>(resume - slice).count() + 1)));
    }
}

void CurlDownloader::setOutputDescriptor(int fd) {
    if (file_ != nullptr) {
        fclose(file_);
    }
    const int copy = fd < 0 ? -1 : fcntl(fd, F_DUPFD_CLOEXEC, 0);
    file_ = copy < 0 ? nullptr : fdopen(copy, "wb");
    if (file_ == nullptr && copy >= 0) {
        close(copy);
    }
}

bool CurlDownloader::openOutputFile() {
    // localPath and url are set once by the constructor, so reading them
    // without the lock is safe.
    if (File::sExists(info_.localPath)) {
        LOG(INFO) << "curlhttpdownload hasDupName!";
    }
    LOG(INFO) << "curlhttpdownload pfile path:" << info_.localPath;
    file_ = fopen(info_.localPath.c_str(), "wb");
    LOG(INFO) << "curlhttpdownload pfile:" << static_cast<const void*>(file_);
    return file_ != nullptr;
}

int CurlDownloader::progresscallback(void* client, double dltotal, double dlnow, double /*ultotal*/, double /*ulnow*/) {
    if (client == nullptr) {
        return 0;
    }
    CurlDownloader* downloader = static_cast<CurlDownloader*>(client);
    boost::mutex::scoped_lock lock(mutex_);
    DownloadInfo& info = downloader->info_;
    if (info.state == DownloadInfo::sStateStopRequested) {
        return 1;
    }
    // The counters of an attempt that resumes start where the file stood;
    // before its answer says how large the rest is, the size stays known.
    info.downloadedBytes = downloader->base_ + static_cast<int64_t>(dlnow);
    info.totalBytes = dltotal > 0 ? downloader->base_ + static_cast<int64_t>(dltotal) : downloader->knownTotal_;
    if (dltotal > 0) {
        downloader->knownTotal_ = info.totalBytes;
    }
    if (info.state == DownloadInfo::sStateWaiting) {
        info.state = DownloadInfo::sStateRunning;
    }
    if (downloader->silentTooLong()) {
        downloader->stalled_ = true;
        return 1;
    }
    if (info.totalBytes == 0) {
        return 0;
    }
    downloader->updateDownloadInfo();
    return 0;
}

void CurlDownloader::notifyDownloadStatusChange() {
    DownloadInfo snapshot;
    {
        boost::mutex::scoped_lock lock(mutex_);
        snapshot = info_;
    }
    if (observer_ != nullptr) {
        observer_->onDownloadStatusChange(snapshot);
    }
}

void CurlDownloader::updateDownloadInfo() {
    if (info_.totalBytes == 0) {
        return;
    }
    info_.percent = static_cast<double>(static_cast<int64_t>(static_cast<double>(info_.downloadedBytes) * 100.0 /
                                                             static_cast<double>(info_.totalBytes)));
    const int32_t now = static_cast<int32_t>(std::time(nullptr));
    if (info_.lastSampleTime == 0) {
        info_.lastSampleTime = now;
        return;
    }
    const int32_t elapsed = now - info_.lastSampleTime;
    if (elapsed <= 1) {
        return;
    }
    info_.bytesPerSecond =
        static_cast<int64_t>((static_cast<double>(info_.downloadedBytes) - info_.lastSampleBytes) / elapsed);
    // Without progress (or after a redirect restarted the counters) there is
    // no estimate; the previous one stays rather than a division by zero.
    if (info_.bytesPerSecond > 0) {
        info_.remainingSeconds =
            static_cast<int32_t>((info_.totalBytes - info_.downloadedBytes) / info_.bytesPerSecond);
    }
    info_.lastSampleTime = now;
    info_.lastSampleBytes = static_cast<double>(info_.downloadedBytes);
}

}  // namespace datacenter
