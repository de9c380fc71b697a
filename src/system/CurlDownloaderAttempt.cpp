// One attempt of a CurlDownloader: the request (a resumption asks for the
// rest of the file), the answer's head (does it continue the file, or start
// it over?), the body into the file, and what the attempt came to.
#include <glog/logging.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string.hpp>
#include <cinttypes>
#include <cstdio>

#include "system/CommonUtils.h"
#include "system/CurlDownloader.h"

namespace datacenter {
namespace {

// libcurl reports progress through the "xferinfo" callback with integer
// counters; the downloader's own callback works on doubles.
int transferInfo(void* client, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow) {
    return CurlDownloader::progresscallback(client, static_cast<double>(dltotal), static_cast<double>(dlnow),
                                            static_cast<double>(ultotal), static_cast<double>(ulnow));
}

// Failures of the line or of the server's connection, which another
// attempt may not meet. A refused range, a bad certificate or a URL that
// is wrong would only fail again.
bool isFailureOfTheLine(CURLcode code) {
    switch (code) {
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
        case CURLE_PARTIAL_FILE:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return true;
        default:
            return false;
    }
}

// "bytes FIRST-LAST/TOTAL": FIRST, and TOTAL or -1 when it is "*".
bool parseContentRange(const std::string& value, int64_t& first, int64_t& total) {
    char star = 0;
    int64_t last = 0;
    if (std::sscanf(value.c_str(), "bytes %" SCNd64 "-%" SCNd64 "/%" SCNd64, &first, &last, &total) == 3) {
        return first >= 0 && last >= first;
    }
    total = -1;
    return std::sscanf(value.c_str(), "bytes %" SCNd64 "-%" SCNd64 "/%c", &first, &last, &star) == 3 && star == '*';
}

long millisecondsUntil(std::chrono::steady_clock::time_point when) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(when - std::chrono::steady_clock::now()).count());
}

}  // namespace

void CurlDownloader::performTransfer() {
    if (curl_ == nullptr) {
        curlCode_ = CURLE_FAILED_INIT;
        return;
    }
    offset_ = fileBytes_;
    base_ = offset_;
    received_ = advanced_ = stalled_ = mismatched_ = localError_ = false;
    status_ = 0;
    attemptLastByte_ = Clock::now();
    const long remainingMs = millisecondsUntil(deadline_);
    if (remainingMs <= 0) {
        curlCode_ = CURLE_OPERATION_TIMEDOUT;
        return;
    }
    curl_easy_setopt(curl_, CURLOPT_URL, info_.url.c_str());
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(curl_, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(curl_, CURLOPT_HEADERDATA, this);
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
    // The whole download's bound (the contract's time-out, when one was
    // given, is the tighter one); a silent attempt ends in the progress report.
    curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT_MS, limits_.connectMs);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, remainingMs);
    curl_slist* headers = nullptr;
    if (offset_ > 0) {
        setResumeOptions(headers);
    }
    LOG(INFO) << info_.localPath << " curlhttpdownload curl_easy_perform";
    curlCode_ = curl_easy_perform(curl_);
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(headers);
    if (fflush(file_) != 0) {
        localError_ = true;
    }
}

void CurlDownloader::setResumeOptions(curl_slist*& headers) {
    headers = curl_slist_append(headers, ("Range: bytes=" + std::to_string(offset_) + "-").c_str());
    if (!validator_.empty()) {
        // Any other version of the file comes whole (200), never as a piece.
        headers = curl_slist_append(headers, ("If-Range: " + validator_).c_str());
    }
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers);
    LOG(INFO) << info_.localPath << " download resumes at " << offset_ << " bytes"
              << (validator_.empty() ? std::string() : " of " + validator_);
}

CurlDownloader::Outcome CurlDownloader::recordTransferResult() {
    if (curlCode_ != CURLE_OK) {
        LOG(INFO) << info_.localPath << " failed.Errorcode:" << curlCode_;
        if (stopRequested()) {
            failWith(API_DOWNLOAD_STOPPED);
            return Outcome::sFailed;
        }
        // Only a file that the server has begun to send is resumed: a server
        // that never answered with it (unreachable, refused, silent) or a
        // file that cannot be written fails at once, as the contract has it.
        const bool ridable = isFailureOfTheLine(curlCode_) || (curlCode_ == CURLE_ABORTED_BY_CALLBACK && stalled_) ||
                             (curlCode_ == CURLE_WRITE_ERROR && mismatched_);
        if (answered_ && !localError_ && ridable) {
            return Outcome::sRetry;
        }
        failWith(API_DOWNLOAD_FAILED);
        return Outcome::sFailed;
    }
    long httpCode = 0;
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, &httpCode);
    LOG(INFO) << "download Finished, HTTP CODE is:" << httpCode;
    if (answered_ && attempt_ > 1 && (httpCode == 502 || httpCode == 503 || httpCode == 504)) {
        // A gateway or a busy server between two parts of a file it serves.
        return Outcome::sRetry;
    }
    if (!localError_ && CommonUtils::sIsHttpCodeSucceed(static_cast<int>(httpCode))) {
        LOG(INFO) << info_.localPath << " Download OK";
        boost::mutex::scoped_lock lock(mutex_);
        info_.state = DownloadInfo::sStateFinished;
        return Outcome::sDone;
    }
    failWith(API_DOWNLOAD_FAILED);
    LOG(ERROR) << "download Failed, HTTP CODE is:" << httpCode;
    return Outcome::sFailed;
}

bool CurlDownloader::silentTooLong() const {
    const Clock::time_point now = Clock::now();
    return now - attemptLastByte_ >= std::chrono::milliseconds(limits_.stallMs) ||
           now - lastByte_ >= std::chrono::milliseconds(limits_.quietMs);
}

void CurlDownloader::startFileOver() {
    if (fflush(file_) != 0 || ftruncate(fileno(file_), 0) != 0 || fseek(file_, 0, SEEK_SET) != 0) {
        localError_ = true;
    }
    fileBytes_ = 0;
    base_ = 0;
    knownTotal_ = 0;
    DownloadRetry restart;
    restart.reason = DownloadRetry::sRestarted;
    restart.attempt = attempt_;
    restart.atBytes = offset_;
    boost::mutex::scoped_lock lock(mutex_);
    retries_.push_back(restart);
    // The rate starts over with the file.
    info_.downloadedBytes = 0;
    info_.percent = 0;
    info_.lastSampleTime = 0;
    info_.lastSampleBytes = 0;
}

size_t CurlDownloader::onHeader(char* data, size_t size, size_t count, void* client) {
    CurlDownloader* downloader = static_cast<CurlDownloader*>(client);
    const size_t length = size * count;
    const std::string line = boost::algorithm::trim_right_copy(std::string(data, length));
    if (boost::algorithm::starts_with(line, "HTTP/")) {
        // A new answer: a redirect's or the file's.
        const size_t space = line.find(' ');
        downloader->status_ = space == std::string::npos ? 0 : std::strtol(line.c_str() + space + 1, nullptr, 10);
        downloader->location_ = false;
        downloader->etag_.clear();
        downloader->lastModified_.clear();
        downloader->contentRange_.clear();
        return length;
    }
    if (line.empty()) {
        return downloader->headComplete() ? length : 0;
    }
    const size_t colon = line.find(':');
    if (colon == std::string::npos) {
        return length;
    }
    const std::string name = boost::algorithm::to_lower_copy(line.substr(0, colon));
    const std::string value = boost::algorithm::trim_copy(line.substr(colon + 1));
    if (name == "etag") {
        downloader->etag_ = value;
    } else if (name == "last-modified") {
        downloader->lastModified_ = value;
    } else if (name == "content-range") {
        downloader->contentRange_ = value;
    } else if (name == "location") {
        downloader->location_ = true;
    }
    return length;
}

bool CurlDownloader::headComplete() {
    const bool followed = status_ >= 300 && status_ < 400 && location_;
    if (status_ < 200 || followed || (status_ != 200 && status_ != 206)) {
        // An interim answer, a redirect, or a failure judged at the end.
        return true;
    }
    answered_ = true;
    if (offset_ > 0 && status_ == 206) {
        int64_t first = -1;
        int64_t total = -1;
        const bool parsed = parseContentRange(contentRange_, first, total);
        if (parsed && first == offset_ && (total < 0 || knownTotal_ == 0 || total == knownTotal_)) {
            base_ = offset_;
            return true;
        }
        // Another piece than the one asked for: of no use, and no sign that
        // the next answer will fit either. The next attempt starts over.
        LOG(WARNING) << info_.localPath << " download got another part (" << contentRange_ << ") than from " << offset_
                     << ", starting over";
        mismatched_ = true;
        validator_.clear();
        startFileOver();
        return false;
    }
    if (offset_ > 0) {
        // A 200: the file changed since the first answer (If-Range), or the
        // server does not send parts. What the file holds is dropped.
        LOG(WARNING) << info_.localPath << " download starts over: the server sent the whole file instead of the rest"
                     << " from " << offset_;
        startFileOver();
    }
    // The validator of this version of the file: a strong ETag, else its date.
    validator_ = !etag_.empty() && !boost::algorithm::starts_with(etag_, "W/") ? etag_ : lastModified_;
    return true;
}

size_t CurlDownloader::onBody(char* data, size_t size, size_t count, void* client) {
    CurlDownloader* downloader = static_cast<CurlDownloader*>(client);
    const size_t length = size * count;
    if (length == 0) {
        return 0;
    }
    if (downloader->attempt_ > 1 && downloader->status_ != 200 && downloader->status_ != 206) {
        // An error page never becomes part of a file being resumed.
        return length;
    }
    if (fwrite(data, 1, length, downloader->file_) != length) {
        downloader->localError_ = true;
        return 0;
    }
    downloader->fileBytes_ += static_cast<int64_t>(length);
    downloader->received_ = true;
    if (downloader->fileBytes_ > downloader->highWater_) {
        downloader->highWater_ = downloader->fileBytes_;
        downloader->advanced_ = true;
    }
    downloader->lastByte_ = downloader->attemptLastByte_ = Clock::now();
    return length;
}

}  // namespace datacenter
