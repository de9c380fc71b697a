#pragma once
// Downloads one URL into one local file over HTTP, keeping a progress record
// that other threads poll, and tells an observer once when the transfer ends.
#include <curl/curl.h>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "common/ApiErrorCode.h"

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
    // whole transfer, 0 for no limit.
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
    // a stop was requested; finally tells the observer.
    void curlhttpdownload();

    // libcurl's progress report for `client` (a CurlDownloader). Returns 1 to
    // abort the transfer when a stop was requested, else 0.
    static int progresscallback(void* client, double dltotal, double dlnow, double ultotal, double ulnow);

    // Passes a copy of the record to the observer, if there is one.
    void notifyDownloadStatusChange();
    // Refreshes percent, rate and remaining time from the counters; the
    // caller holds mutex_.
    void updateDownloadInfo();

private:
    bool openOutputFile();
    void performTransfer();
    void recordTransferResult();

    DownloadInfo info_;
    FILE* file_ = nullptr;
    CURL* curl_ = nullptr;
    CURLcode curlCode_ = CURLE_OK;
    IDownloadTaskObserver* observer_ = nullptr;
    boost::shared_ptr<boost::thread> thread_;
    long timeoutSeconds_ = 0;
};

}  // namespace datacenter
