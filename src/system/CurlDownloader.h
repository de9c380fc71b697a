#pragma once
// Downloads one URL into one local file over HTTP, keeping a progress record
// that other threads poll, and tells an observer once when the transfer ends.
#include <curl/curl.h>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "common/ApiErrorCode.h"
#include "system/DownloadPolicy.h"

namespace datacenter {

// One file of a torrent task; the HTTP downloader only copies it along.
struct BTSubTask {
    std::string name;
    std::string path;
    int64_t totalBytes = 0;
    int32_t index = 0;
    int64_t downloadedBytes = 0;
    int32_t state = 0;
    int32_t selected = 0;
};

// Progress record of one download task, passed around by value.
struct DownloadInfo {
    // Values of `state`.
    static constexpr int32_t sStateRunning = 1;
    static constexpr int32_t sStateFinished = 4;
    static constexpr int32_t sStateStopRequested = 8;
    static constexpr int32_t sStateFailed = 16;
    static constexpr int32_t sStateWaiting = 32;

    std::string taskText;
    ApiErrorCode errorCode = 0;  // 0, 2003 failed, 2007 stopped by request
    int32_t taskFlag = 1;
    int64_t totalBytes = 0;
    int64_t downloadedBytes = 0;
    std::string localPath;
    std::string extraText1;
    std::string extraText2;
    int32_t remainingSeconds = -1;
    int64_t bytesPerSecond = 0;
    int64_t extraInt64 = 0;
    double lastSampleBytes = 0;
    int32_t lastSampleTime = 0;  // seconds since the epoch; 0 = no sample yet
    std::string url;
    int32_t state = sStateRunning;
    double percent = 0;  // whole number 0..100
    int32_t extraInt1 = 0;
    std::string extraText3;
    int64_t extraInt64b = 0;
    std::string extraText4;
    int32_t extraInt2 = 0;
    std::vector<BTSubTask> subTasks;
    std::string extraText5;
    std::string extraText6;
    std::string extraText7;
    std::string extraText8;
};

// A failed attempt that the downloader rides out, or an answer that made it
// start the file over; for whoever shows the download.
struct DownloadRetry {
    enum Reason {
        sLost,       // the connection failed or closed early
        sStalled,    // no byte came for the stall time
        sRestarted,  // the server sent the whole file instead of the rest
    };
    Reason reason = sLost;
    int attempt = 1;      // the attempt it happened in, 1 for the first
    int64_t atBytes = 0;  // bytes of the file held then (dropped for sRestarted)
    long waitMs = 0;      // before the next attempt; 0 for sRestarted
};

// Hears of the end of a download, once per run, with a copy of its record.
class IDownloadTaskObserver {
public:
    virtual ~IDownloadTaskObserver() = default;
    virtual void onDownloadStatusChange(DownloadInfo info) = 0;
};

class CurlDownloader {
public:
    // Guards the records of all downloaders.
    static boost::mutex mutex_;

    // `observer` is not owned and may be null; `timeoutSeconds` limits the
    // whole download, all its attempts, when it is tighter than the limit of
    // DownloadLimits (0: that limit alone).
    CurlDownloader(const std::string& url, const std::string& localPath, IDownloadTaskObserver* observer,
                   long timeoutSeconds);
    // Neither stops nor joins a running transfer: the object must outlive it.
    virtual ~CurlDownloader();

    CurlDownloader(const CurlDownloader&) = delete;
    CurlDownloader& operator=(const CurlDownloader&) = delete;

    // Runs the transfer on the calling thread; the result is in getInfo().
    // Writes the download into the open file `fd` (a duplicate of it is
    // taken) instead of creating localPath, which then only names it.
    void setOutputDescriptor(int fd);
    void beginDownloadSync();
    // Runs the transfer on a thread of its own and returns at once.
    void beginDownloadAsync();
    // Waits until the thread started by beginDownloadAsync() has ended.
    void join();

    // A copy of the progress record.
    DownloadInfo getInfo();
    // Sets the task state on behalf of the task's owner: 8 asks a running
    // transfer to stop (it ends with 2007), 32 marks it as waiting.
    void setState(int32_t state);

    // The transfer: writes `url` to `localPath`, then sets state 4 (HTTP 200
    // or 206) or 16 with 2003 (any other outcome), or keeps 8 with 2007 when
    // a stop was requested; finally tells the observer. Once the server has
    // answered with the file, an attempt that fails on the way (connection
    // lost, no byte for the stall time) is followed by another that asks for
    // the rest (Range, guarded by If-Range with the answer's ETag or
    // Last-Modified) after a back-off, within the limits of DownloadLimits;
    // an answer with the whole file starts the file over. The record then
    // counts the bytes of the whole file.
    void curlhttpdownload();
    // The attempts ridden out and restarts so far, in order.
    std::vector<DownloadRetry> retries();

    // libcurl's progress report for `client` (a CurlDownloader). Returns 1 to
    // abort the transfer when a stop was requested or the attempt has been
    // silent too long (DownloadLimits), else 0.
    static int progresscallback(void* client, double dltotal, double dlnow, double ultotal, double ulnow);

    // Passes a copy of the record to the observer, if there is one.
    void notifyDownloadStatusChange();
    // Refreshes percent, rate and remaining time from the counters; the
    // caller holds mutex_.
    void updateDownloadInfo();

private:
    // What one attempt came to.
    enum class Outcome { sDone, sRetry, sFailed };

    bool openOutputFile();
    void performTransfer();
    Outcome recordTransferResult();
    // Options of one attempt that resumes at `offset_`.
    void setResumeOptions(curl_slist*& headers);
    // After a failed attempt: waits and returns true when another may start,
    // else records the failure (2003, or 2007 when stopped while waiting).
    bool waitForNextAttempt(int attempt);
    void failWith(ApiErrorCode code);
    bool stopRequested();
    // The attempt received nothing for the stall time, or the download for the quiet time.
    bool silentTooLong() const;
    // Drops what the file holds and writes it from its first byte again.
    void startFileOver();
    // libcurl's callbacks for the answer's head lines and body.
    static size_t onHeader(char* data, size_t size, size_t count, void* client);
    static size_t onBody(char* data, size_t size, size_t count, void* client);
    // The head of an answer is complete: false aborts the attempt.
    bool headComplete();

    typedef std::chrono::steady_clock Clock;

    DownloadInfo info_;
    FILE* file_ = nullptr;
    CURL* curl_ = nullptr;
    CURLcode curlCode_ = CURLE_OK;
    IDownloadTaskObserver* observer_ = nullptr;
    boost::shared_ptr<boost::thread> thread_;
    long timeoutSeconds_ = 0;

    // The attempts, all on the transfer's thread but for retries_.
    DownloadLimits limits_;
    RetryPlan plan_{DownloadLimits()};
    std::vector<DownloadRetry> retries_;  // guarded by mutex_
    int attempt_ = 0;
    int64_t offset_ = 0;       // bytes the file held when this attempt began
    int64_t base_ = 0;         // where this attempt's counters start in the file
    int64_t fileBytes_ = 0;    // bytes the file holds
    int64_t highWater_ = 0;    // the most it ever held
    int64_t knownTotal_ = 0;   // the file's size from an earlier answer, 0 unknown
    std::string validator_;    // sent as If-Range: the file's strong ETag or Last-Modified
    bool answered_ = false;    // some answer carried the file (200 or 206)
    bool received_ = false;    // this attempt received bytes of the file
    bool advanced_ = false;    // ... beyond the most the file ever held
    bool stalled_ = false;     // ended by silentTooLong()
    bool mismatched_ = false;  // a 206 for another part of the file
    bool localError_ = false;  // the file could not be written
    // The head being read: status, and the headers the resumption needs.
    long status_ = 0;
    bool location_ = false;
    std::string etag_;
    std::string lastModified_;
    std::string contentRange_;
    Clock::time_point deadline_;         // of the whole download
    Clock::time_point lastByte_;         // of the download, or its start
    Clock::time_point attemptLastByte_;  // of this attempt, or its start
};

}  // namespace datacenter
