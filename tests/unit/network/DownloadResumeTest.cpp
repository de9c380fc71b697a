// The downloader on a bad line: what a resumption asks for, what the record
// shows meanwhile, which answer starts the file over, and that every way of
// giving up ends once, with the contract's codes. The settings are shortened
// through the environment; no case measures a duration.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <thread>

#include "support/HttpTestServer.h"
#include "support/TestSupport.h"
#include "system/CurlDownloader.h"

using datacenter::CurlDownloader;
using datacenter::DownloadInfo;
using datacenter::DownloadRetry;
using testsupport::HttpResponse;
using testsupport::HttpTestServer;
using testsupport::ServedFile;

namespace {

std::string noise(size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        seed = seed * 1103515245u + 12345u;
        byte = static_cast<char>(seed >> 16);
    }
    return bytes;
}

class DownloadResume : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("DATACENTER_DOWNLOAD_BACKOFF_MS", "20", 1);
        setenv("DATACENTER_DOWNLOAD_STALL_MS", "1000", 1);
        setenv("DATACENTER_DOWNLOAD_QUIET_MS", "3000", 1);
        setenv("DATACENTER_DOWNLOAD_RETRIES", "3", 1);
    }

    // Downloads `path` on its own thread; the record's byte count, sampled
    // meanwhile, may fall only where the file was started over.
    DownloadInfo download(const std::string& path) {
        CurlDownloader downloader(server_.url(path), target_, nullptr, 0);
        downloader.beginDownloadAsync();
        int64_t last = 0;
        DownloadInfo info;
        do {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            info = downloader.getInfo();
            if (info.downloadedBytes < last) {
                bool restarted = false;
                for (const DownloadRetry& retry : downloader.retries()) {
                    restarted |= retry.reason == DownloadRetry::sRestarted;
                }
                EXPECT_TRUE(restarted) << "went back from " << last << " to " << info.downloadedBytes;
            }
            last = info.downloadedBytes;
        } while (info.state == DownloadInfo::sStateRunning && info.errorCode == 0);
        downloader.join();
        retries_ = downloader.retries();
        return downloader.getInfo();
    }

    std::string target_ = testsupport::makeScratchDir("downloads") + "/package.qpk";
    HttpTestServer server_;
    std::vector<DownloadRetry> retries_;
};

TEST_F(DownloadResume, EachAttemptAsksForTheRestOfTheVersionItBegan) {
    struct Row {
        const char* name;
        std::string etag, lastModified, ifRange;
    };
    const Row rows[] = {
        {"etag", "\"v1\"", "Tue, 24 Nov 2026 10:00:00 GMT", "\"v1\""},
        {"date only", "", "Tue, 24 Nov 2026 10:00:00 GMT", "Tue, 24 Nov 2026 10:00:00 GMT"},
        // A weak ETag may not guard a range: the date does.
        {"weak etag", "W/\"v1\"", "Tue, 24 Nov 2026 10:00:00 GMT", "Tue, 24 Nov 2026 10:00:00 GMT"},
        {"no validator", "", "", ""},
    };
    const size_t size = 300 * 1000;
    const size_t cut = 64 * 1024;
    for (const Row& row : rows) {
        ServedFile file;
        file.body = noise(size, 7);
        file.etag = row.etag;
        file.lastModified = row.lastModified;
        file.cutEvery = cut;
        const std::string path = "/file" + std::to_string(&row - rows);
        server_.serveFile(path, file);
        const size_t before = server_.requests().size();
        const DownloadInfo info = download(path);

        EXPECT_EQ(0, info.errorCode) << row.name;
        EXPECT_EQ(DownloadInfo::sStateFinished, info.state) << row.name;
        EXPECT_TRUE(file.body == testsupport::readFile(target_)) << row.name;
        EXPECT_EQ(static_cast<int64_t>(size), info.downloadedBytes) << row.name;
        EXPECT_EQ(static_cast<int64_t>(size), info.totalBytes) << row.name;
        EXPECT_EQ(100, info.percent) << row.name;
        const std::vector<testsupport::HttpRequest> requests = server_.requests();
        ASSERT_EQ(before + 5, requests.size()) << row.name;
        EXPECT_EQ("", requests[before].header("range")) << row.name;
        ASSERT_EQ(4u, retries_.size()) << row.name;
        for (size_t i = 1; i < 5; ++i) {
            EXPECT_EQ("bytes=" + std::to_string(i * cut) + "-", requests[before + i].header("range")) << row.name;
            EXPECT_EQ(row.ifRange, requests[before + i].header("if-range")) << row.name;
            EXPECT_EQ(DownloadRetry::sLost, retries_[i - 1].reason) << row.name;
            EXPECT_EQ(static_cast<int64_t>(i * cut), retries_[i - 1].atBytes) << row.name;
            EXPECT_EQ(static_cast<int>(i), retries_[i - 1].attempt) << row.name;
            // Each attempt received bytes: the wait stays the first one.
            EXPECT_EQ(20, retries_[i - 1].waitMs) << row.name;
        }
    }
}

TEST_F(DownloadResume, TheWholeFileInsteadOfTheRestStartsTheFileOver) {
    ServedFile changing;
    changing.body = noise(200 * 1000, 1);
    changing.etag = "\"v1\"";
    changing.cutEvery = 50 * 1000;
    changing.nextBody = noise(120 * 1000, 2);  // shorter: nothing of the first may stay
    changing.nextEtag = "\"v2\"";
    server_.serveFile("/changing", changing);
    DownloadInfo info = download("/changing");
    EXPECT_EQ(0, info.errorCode);
    EXPECT_TRUE(changing.nextBody == testsupport::readFile(target_));
    ASSERT_LE(2u, retries_.size());
    EXPECT_EQ(DownloadRetry::sLost, retries_[0].reason);
    EXPECT_EQ(DownloadRetry::sRestarted, retries_[1].reason);
    EXPECT_EQ(50 * 1000, retries_[1].atBytes);
    // The new version is resumed with its own validator.
    const std::vector<testsupport::HttpRequest> requests = server_.requests();
    EXPECT_EQ("\"v1\"", requests.at(1).header("if-range"));
    EXPECT_EQ("\"v2\"", requests.at(2).header("if-range"));
    EXPECT_EQ(static_cast<int64_t>(changing.nextBody.size()), info.totalBytes);

    // A piece the client did not ask for is never appended.
    int answers = 0;
    const std::string body = noise(100 * 1000, 3);
    server_.route("/wrong-piece", [&](const testsupport::HttpRequest&) {
        HttpResponse response = HttpResponse::text(200, body);
        if (answers++ == 0) {
            response.cutAfterBytes = 30 * 1000;
        } else if (answers == 2) {
            response.status = 206;
            response.body = body.substr(10);
            response.headers.emplace_back("Content-Range", "bytes 10-99999/100000");
        }
        return response;
    });
    info = download("/wrong-piece");
    EXPECT_EQ(0, info.errorCode);
    EXPECT_TRUE(body == testsupport::readFile(target_));
    EXPECT_EQ("", server_.requests().back().header("range"));
}

TEST_F(DownloadResume, EveryWayOfGivingUpEndsOnceWithTheContractsCodes) {
    ServedFile noRanges;
    noRanges.body = noise(100 * 1000, 4);
    noRanges.ranges = false;
    noRanges.cutEvery = 30 * 1000;
    server_.serveFile("/no-ranges", noRanges);
    ServedFile silent = noRanges;
    silent.ranges = true;
    silent.cutEvery = std::string::npos;
    silent.stallAt = 40 * 1000;
    silent.stalls = -1;
    server_.serveFile("/silent", silent);
    server_.route("/never", HttpResponse::stalled());
    const std::string refused = "http://127.0.0.1:" + std::to_string(testsupport::closedLoopbackPort()) + "/x";
    struct Row {
        std::string path;
        size_t requests;  // how many the server saw
    };
    // No ranges: the first attempt and four that bring nothing new (three
    // retries allowed after the first of them). Silent: attempts until no
    // byte came for the quiet time. Never answered, refused: one attempt.
    for (const Row& row : {Row{"/no-ranges", 5}, Row{"/silent", 0}, Row{"/never", 1}, Row{refused, 0}}) {
        const size_t before = server_.requests().size();
        class Observer : public datacenter::IDownloadTaskObserver {
        public:
            void onDownloadStatusChange(DownloadInfo info) override { heard.push_back(info); }
            std::vector<DownloadInfo> heard;
        } observer;
        CurlDownloader downloader(row.path[0] == '/' ? server_.url(row.path) : row.path, target_, &observer, 0);
        downloader.beginDownloadSync();
        ASSERT_EQ(1u, observer.heard.size()) << row.path;
        EXPECT_EQ(2003, observer.heard[0].errorCode) << row.path;
        EXPECT_EQ(DownloadInfo::sStateFailed, observer.heard[0].state) << row.path;
        if (row.requests > 0) {
            EXPECT_EQ(row.requests, server_.requests().size() - before) << row.path;
        }
        if (row.path == "/silent") {
            const std::vector<DownloadRetry> retries = downloader.retries();
            ASSERT_LE(1u, retries.size());
            EXPECT_EQ(DownloadRetry::sStalled, retries[0].reason);
            EXPECT_EQ(40 * 1000, retries[0].atBytes);
            // Attempts that receive nothing wait longer each time.
            for (size_t i = 1; i < retries.size(); ++i) {
                EXPECT_EQ(retries[i - 1].waitMs * 2, retries[i].waitMs);
            }
        }
    }
}

// A trickle that never stalls still ends at the whole download's bound.
TEST_F(DownloadResume, TheWholeDownloadHasABoundOfItsOwn) {
    setenv("DATACENTER_DOWNLOAD_TOTAL_MS", "1500", 1);
    ServedFile trickle;
    trickle.body = noise(100 * 1000, 6);
    trickle.chunkBytes = 5 * 1000;
    trickle.chunkDelayMs = 200;
    server_.serveFile("/trickle", trickle);
    const DownloadInfo info = download("/trickle");
    EXPECT_EQ(2003, info.errorCode);
    EXPECT_EQ(DownloadInfo::sStateFailed, info.state);
    EXPECT_LT(info.downloadedBytes, static_cast<int64_t>(trickle.body.size()));
    EXPECT_EQ(1u, server_.requests().size());
}

TEST_F(DownloadResume, AStopDuringTheBackOffEndsTheDownloadWith2007) {
    setenv("DATACENTER_DOWNLOAD_BACKOFF_MS", "3600000", 1);
    setenv("DATACENTER_DOWNLOAD_QUIET_MS", "7200000", 1);
    ServedFile file;
    file.body = noise(100 * 1000, 5);
    file.cutEvery = 10 * 1000;
    server_.serveFile("/cut", file);
    CurlDownloader downloader(server_.url("/cut"), target_, nullptr, 0);
    downloader.beginDownloadAsync();
    ASSERT_TRUE(testsupport::waitUntil([&] { return !downloader.retries().empty(); }));
    downloader.setState(DownloadInfo::sStateStopRequested);
    downloader.join();
    EXPECT_EQ(2007, downloader.getInfo().errorCode);
    EXPECT_EQ(DownloadInfo::sStateStopRequested, downloader.getInfo().state);
    EXPECT_EQ(1u, server_.requests().size());
}

}  // namespace
