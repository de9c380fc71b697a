#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "support/HttpTestServer.h"
#include "support/TestSupport.h"
#include "system/CurlDownloader.h"

using datacenter::CurlDownloader;
using datacenter::DownloadInfo;
using testsupport::HttpResponse;
using testsupport::HttpTestServer;

namespace {

class RecordingObserver : public datacenter::IDownloadTaskObserver {
public:
    void onDownloadStatusChange(DownloadInfo info) override {
        std::lock_guard<std::mutex> lock(mutex_);
        heard_.push_back(info);
    }
    std::vector<DownloadInfo> heard() {
        std::lock_guard<std::mutex> lock(mutex_);
        return heard_;
    }

private:
    std::mutex mutex_;
    std::vector<DownloadInfo> heard_;
};

std::string patternBody(size_t size) {
    std::string body(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        body[i] = static_cast<char>('a' + i % 26);
    }
    return body;
}

void sleepMs(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

class CurlDownloaderTest : public ::testing::Test {
protected:
    std::string target_ = testsupport::makeScratchDir("downloads") + "/package.qpk";
    HttpTestServer server_;
    RecordingObserver observer_;
};

TEST_F(CurlDownloaderTest, FollowsRedirectsAndAcceptsFullAndPartialContent) {
    for (const int status : {200, 206}) {
        const std::string body = patternBody(5000) + std::to_string(status);
        server_.route("/moved", HttpResponse::redirect(server_.url("/file")));
        server_.route("/file", HttpResponse::text(status, body, "application/octet-stream"));
        RecordingObserver observer;
        CurlDownloader downloader(server_.url("/moved"), target_, &observer, 0);
        downloader.beginDownloadSync();

        const DownloadInfo info = downloader.getInfo();
        EXPECT_EQ(DownloadInfo::sStateFinished, info.state) << status;
        EXPECT_EQ(0, info.errorCode);
        EXPECT_EQ(target_, info.localPath);
        EXPECT_EQ(body, testsupport::readFile(target_));
        ASSERT_EQ(1u, observer.heard().size());
        EXPECT_EQ(DownloadInfo::sStateFinished, observer.heard()[0].state);
    }
}

TEST_F(CurlDownloaderTest, NoContentUnwritableTargetTimeoutAndRefusalFailOnce) {
    testsupport::writeFile(target_, "old content");
    server_.route("/empty", HttpResponse::text(204, ""));
    server_.route("/stall", HttpResponse::stalled());
    const std::string refused = "http://127.0.0.1:" + std::to_string(testsupport::closedLoopbackPort()) + "/file";
    const std::vector<std::pair<std::string, std::string>> cases = {{server_.url("/empty"), target_},
                                                                    {server_.url("/file"), target_ + "/missing/file"},
                                                                    {server_.url("/stall"), target_},
                                                                    {refused, target_}};
    for (size_t i = 0; i < cases.size(); ++i) {
        CurlDownloader downloader(cases[i].first, cases[i].second, &observer_, 1);
        downloader.beginDownloadSync();
        EXPECT_EQ(DownloadInfo::sStateFailed, downloader.getInfo().state) << cases[i].first;
        EXPECT_EQ(2003, downloader.getInfo().errorCode) << cases[i].first;
        ASSERT_EQ(i + 1, observer_.heard().size()) << cases[i].first;
        EXPECT_EQ(2003, observer_.heard()[i].errorCode);
    }
    // The empty answer overwrote the old file; the unwritable target was never asked for.
    EXPECT_EQ("", testsupport::readFile(target_));
    ASSERT_EQ(2u, server_.requests().size());
    EXPECT_EQ("/stall", server_.requests()[1].path);
}

TEST_F(CurlDownloaderTest, LocalFilesAreNeverReadDirectlyOrThroughARedirect) {
    const std::string secret = testsupport::makeScratchDir("local") + "/secret";
    testsupport::writeFile(secret, "root's file");
    server_.route("/to-file", HttpResponse::redirect("file://" + secret));
    for (const std::string& url : {"file://" + secret, server_.url("/to-file")}) {
        CurlDownloader downloader(url, target_, &observer_, 0);
        downloader.beginDownloadSync();
        EXPECT_EQ(2003, downloader.getInfo().errorCode) << url;
        EXPECT_NE("root's file", testsupport::readFile(target_)) << url;
    }
}

TEST_F(CurlDownloaderTest, PercentAndRateFollowSlowStream) {
    const size_t size = 256 * 1024;
    server_.route("/slow", HttpResponse::slow(patternBody(size), 8 * 1024, 100));
    CurlDownloader downloader(server_.url("/slow"), target_, &observer_, 0);
    downloader.setState(DownloadInfo::sStateWaiting);
    downloader.beginDownloadAsync();

    bool sawRate = false;
    double lastPercent = 0;
    while (observer_.heard().empty()) {
        const DownloadInfo info = downloader.getInfo();
        if (info.downloadedBytes > 0) {
            EXPECT_NE(DownloadInfo::sStateWaiting, info.state);
            EXPECT_EQ(static_cast<int64_t>(size), info.totalBytes);
            EXPECT_EQ(static_cast<double>(info.downloadedBytes * 100 / info.totalBytes), info.percent);
            EXPECT_GE(info.percent, lastPercent);
            lastPercent = info.percent;
        }
        if (info.bytesPerSecond > 0) {
            sawRate = true;
            EXPECT_LE(info.bytesPerSecond, static_cast<int64_t>(size));
            const int64_t left = info.totalBytes - static_cast<int64_t>(info.lastSampleBytes);
            EXPECT_EQ(left / info.bytesPerSecond, info.remainingSeconds);
        }
        sleepMs(20);
    }
    downloader.join();
    EXPECT_TRUE(sawRate);
    const DownloadInfo info = downloader.getInfo();
    EXPECT_EQ(DownloadInfo::sStateFinished, info.state);
    EXPECT_EQ(100, info.percent);
    EXPECT_EQ(size, testsupport::readFile(target_).size());
}

TEST_F(CurlDownloaderTest, UnknownSizeLeavesProgressFiguresAlone) {
    HttpResponse response = HttpResponse::slow(patternBody(64 * 1024), 16 * 1024, 10);
    response.sendLength = false;
    server_.route("/unsized", response);
    CurlDownloader downloader(server_.url("/unsized"), target_, &observer_, 0);
    downloader.beginDownloadSync();

    const DownloadInfo info = downloader.getInfo();
    EXPECT_EQ(DownloadInfo::sStateFinished, info.state);
    EXPECT_EQ(0, info.totalBytes);
    EXPECT_GT(info.downloadedBytes, 0);
    EXPECT_EQ(0, info.percent);
    EXPECT_EQ(0, info.bytesPerSecond);
    EXPECT_EQ(-1, info.remainingSeconds);
}

}  // namespace
