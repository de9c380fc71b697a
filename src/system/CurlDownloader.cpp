#include "system/CurlDownloader.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <unistd.h>

#include <boost/bind/bind.hpp>

#include "storage/File.h"
#include "system/CommonUtils.h"

namespace datacenter {
namespace {

// libcurl reports progress through the "xferinfo" callback with integer
// counters; the downloader's own callback works on doubles.
int transferInfo(void* client, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow) {
    return CurlDownloader::progresscallback(client, static_cast<double>(dltotal), static_cast<double>(dlnow),
                                            static_cast<double>(ultotal), static_cast<double>(ulnow));
}

}  // namespace

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
        {
            boost::mutex::scoped_lock lock(mutex_);
            info_.errorCode = API_DOWNLOAD_FAILED;
            info_.state = DownloadInfo::sStateFailed;
        }
        notifyDownloadStatusChange();
        return;
    }
    curl_ = curl_easy_init();
    LOG(INFO) << info_.localPath << " curlhttpdownload curl_easy_init";
    try {
        performTransfer();
        recordTransferResult();
    } catch (...) {
        LOG(ERROR) << info_.localPath << " failed";
    }
    if (file_ != nullptr) {
        fclose(file_);
        file_ = nullptr;
    }
    if (curl_ != nullptr) {
        curl_easy_cleanup(curl_);
        curl_ = nullptr;
    }
    notifyDownloadStatusChange();
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

void CurlDownloader::performTransfer() {
    if (curl_ == nullptr) {
        curlCode_ = CURLE_FAILED_INIT;
        return;
    }
    curl_easy_setopt(curl_, CURLOPT_URL, info_.url.c_str());
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, file_);
    curl_easy_setopt(curl_, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl_, CURLOPT_XFERINFOFUNCTION, transferInfo);
    curl_easy_setopt(curl_, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(curl_, CURLOPT_FOLLOWLOCATION, 1L);
    // Packages come over the web only: the installer runs as root, so a URL
    // or a redirect must never make it read a local file or talk to another
    // kind of server.
    curl_easy_setopt(curl_, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl_, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    if (timeoutSeconds_ != 0) {
        curl_easy_setopt(curl_, CURLOPT_TIMEOUT, timeoutSeconds_);
    }
    LOG(INFO) << info_.localPath << " curlhttpdownload curl_easy_perform";
    curlCode_ = curl_easy_perform(curl_);
}

void CurlDownloader::recordTransferResult() {
    if (curlCode_ != CURLE_OK) {
        LOG(INFO) << info_.localPath << " failed.Errorcode:" << curlCode_;
        boost::mutex::scoped_lock lock(mutex_);
        if (info_.state == DownloadInfo::sStateStopRequested) {
            info_.errorCode = API_DOWNLOAD_STOPPED;
        } else {
            info_.errorCode = API_DOWNLOAD_FAILED;
            info_.state = DownloadInfo::sStateFailed;
        }
        return;
    }
    long httpCode = 0;
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &httpCode);
    LOG(INFO) << "download Finished, HTTP CODE is:" << httpCode;
    if (CommonUtils::sIsHttpCodeSucceed(static_cast<int>(httpCode))) {
        LOG(INFO) << info_.localPath << " Download OK";
        boost::mutex::scoped_lock lock(mutex_);
        info_.state = DownloadInfo::sStateFinished;
        return;
    }
    {
        boost::mutex::scoped_lock lock(mutex_);
        info_.state = DownloadInfo::sStateFailed;
        info_.errorCode = API_DOWNLOAD_FAILED;
    }
    LOG(ERROR) << "download Failed, HTTP CODE is:" << httpCode;
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
    info.downloadedBytes = static_cast<int64_t>(dlnow);
    info.totalBytes = static_cast<int64_t>(dltotal);
    if (info.state == DownloadInfo::sStateWaiting) {
        info.state = DownloadInfo::sStateRunning;
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
