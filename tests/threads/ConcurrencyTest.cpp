// Work that runs on several threads at once: listings during an
// installation, status changes from many threads, downloads stopped from
// other threads, and two installations racing for the install lock. These
// cases are built a second time with ThreadSanitizer (label `threads`).
#include <gtest/gtest.h>

#include <atomic>
#include <boost/thread/barrier.hpp>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Plugin/PluginManager.h"
#include "common/ApiErrorCode.h"
#include "common/Singleton.h"
#include "support/HttpTestServer.h"
#include "support/PackageFactory.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"
#include "system/CurlDownloader.h"
#include "unit/Plugin/PluginTestSupport.h"

using datacenter::CurlDownloader;
using datacenter::DownloadInfo;
using datacenter::PluginInfo;
using testsupport::isListed;

namespace {

std::string packageFor(testsupport::PackageFactory& factory, const std::string& id) {
    testsupport::PackageSpec spec;
    spec.id = id;
    return factory.build(spec, "package-" + id);
}

}  // namespace

TEST(Threads, ListingsStayWholeWhileAnInstallationRuns) {
    testsupport::PackageFactory factory;
    const std::string package = packageFor(factory, "5017400000000000100");
    testsupport::putPlugin("5017400000000000200", datacenter::ENABLED);
    PluginManager* manager = Singleton<PluginManager>::instance();

    std::atomic<bool> done(false);
    ApiErrorCode installed = -1;
    std::thread installer([&] {
        installed = manager->installFromLocal(package, false);
        done = true;
    });
    size_t listings = 0;
    // At least one listing overlaps the installation however quick it is.
    do {
        std::vector<PluginInfo> plugins;
        ASSERT_EQ(API_SUCCESS, manager->getPluginList(plugins));
        bool sawOther = false;
        for (const PluginInfo& plugin : plugins) {
            EXPECT_FALSE(plugin.id.empty());
            sawOther = sawOther || plugin.id == "5017400000000000200";
        }
        EXPECT_TRUE(sawOther) << "a plugin vanished from a listing during an installation";
        ++listings;
    } while (!done);
    installer.join();

    EXPECT_EQ(API_SUCCESS, installed);
    EXPECT_GE(listings, 1u);
    EXPECT_TRUE(isListed("5017400000000000100"));
    EXPECT_TRUE(isListed("5017400000000000200"));
}

TEST(Threads, StatusChangesFromEightThreadsLeaveEachPluginAsLastAsked) {
    const auto runner = testsupport::RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    const int kThreads = 8;
    const int kChanges = 2;
    for (int i = 0; i < kThreads; ++i) {
        testsupport::putPlugin("70" + std::to_string(i), datacenter::DISABLED);
    }
    boost::barrier start(kThreads);
    std::atomic<int> failures(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            const std::string id = "70" + std::to_string(i);
            start.wait();
            // Thread i ends on DISABLED when i is even and on ENABLED when odd.
            for (int change = 0; change < kChanges + (i % 2); ++change) {
                const datacenter::PluginStatus wanted = change % 2 == 0 ? datacenter::ENABLED : datacenter::DISABLED;
                if (manager->changePluginStatus(id, wanted) != API_SUCCESS) {
                    ++failures;
                }
                datacenter::PluginStatus status = datacenter::NOT_INSTALLED;
                manager->getPluginStatus("70" + std::to_string((i + 1) % kThreads), status);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(0, failures.load());
    for (int i = 0; i < kThreads; ++i) {
        const std::string id = "70" + std::to_string(i);
        EXPECT_EQ(i % 2 == 0 ? datacenter::DISABLED : datacenter::ENABLED, testsupport::storedStatus(id)) << id;
        datacenter::PluginStatus status = datacenter::NOT_INSTALLED;
        EXPECT_EQ(API_SUCCESS, manager->getPluginStatus(id, status));
        EXPECT_EQ(testsupport::storedStatus(id), status) << id;
    }
}

TEST(Threads, DownloadsStoppedFromOtherThreadsEndOnceAndAreWaitedOn) {
    class CountingObserver : public datacenter::IDownloadTaskObserver {
    public:
        void onDownloadStatusChange(DownloadInfo info) override {
            std::lock_guard<std::mutex> lock(mutex_);
            codes.push_back(info.errorCode);
        }
        std::mutex mutex_;
        std::vector<ApiErrorCode> codes;
    };
    testsupport::HttpTestServer server;
    server.route("/slow", testsupport::HttpResponse::slow(std::string(4 * 1024 * 1024, 'x'), 8 * 1024, 20));
    const std::string dir = testsupport::makeScratchDir("downloads");
    const int kDownloads = 4;
    CountingObserver observer;
    std::vector<std::unique_ptr<CurlDownloader>> downloads;
    for (int i = 0; i < kDownloads; ++i) {
        downloads.emplace_back(new CurlDownloader(server.url("/slow"), dir + "/d" + std::to_string(i), &observer, 0));
        downloads.back()->beginDownloadAsync();
    }
    // Each download is stopped by a thread of its own once bytes arrive,
    // while this thread keeps reading every record.
    std::vector<std::thread> stoppers;
    for (int i = 0; i < kDownloads; ++i) {
        stoppers.emplace_back([&, i] {
            while (downloads[i]->getInfo().downloadedBytes == 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
            downloads[i]->setState(DownloadInfo::sStateStopRequested);
            downloads[i]->join();
        });
    }
    for (int round = 0; round < 50; ++round) {
        for (auto& download : downloads) {
            const DownloadInfo info = download->getInfo();
            EXPECT_LE(info.downloadedBytes, static_cast<int64_t>(4 * 1024 * 1024));
        }
    }
    for (std::thread& stopper : stoppers) {
        stopper.join();
    }

    for (int i = 0; i < kDownloads; ++i) {
        const DownloadInfo info = downloads[i]->getInfo();
        EXPECT_EQ(DownloadInfo::sStateStopRequested, info.state);
        EXPECT_EQ(2007, info.errorCode);
        EXPECT_LT(info.downloadedBytes, info.totalBytes);
        // What arrived stays on disk.
        EXPECT_FALSE(testsupport::readFile(dir + "/d" + std::to_string(i)).empty());
    }
    std::lock_guard<std::mutex> lock(observer.mutex_);
    EXPECT_EQ(std::vector<ApiErrorCode>(kDownloads, 2007), observer.codes);
}

TEST(Threads, TwoInstallationsRacingForTheLockNeverRunTogether) {
    testsupport::PackageFactory factory;
    const std::vector<std::string> ids = {"5017400000000000101", "5017400000000000102"};
    const std::vector<std::string> packages = {packageFor(factory, ids[0]), packageFor(factory, ids[1])};
    PluginManager* manager = Singleton<PluginManager>::instance();

    boost::barrier start(2);
    ApiErrorCode results[2] = {-1, -1};
    std::vector<std::thread> installers;
    for (int i = 0; i < 2; ++i) {
        installers.emplace_back([&, i] {
            start.wait();
            results[i] = manager->installFromLocal(packages[i], true);
        });
    }
    for (std::thread& installer : installers) {
        installer.join();
    }

    // Either both ran one after the other, or one was turned away while the other ran.
    int succeeded = 0;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(results[i] == API_SUCCESS || results[i] == API_INSTALL_IN_PROGRESS) << results[i];
        succeeded += results[i] == API_SUCCESS;
        EXPECT_EQ(results[i] == API_SUCCESS, isListed(ids[i])) << ids[i];
    }
    EXPECT_GE(succeeded, 1);
    // The lock is free again: a refused package installs now.
    for (int i = 0; i < 2; ++i) {
        if (results[i] == API_INSTALL_IN_PROGRESS) {
            EXPECT_EQ(API_SUCCESS, manager->installFromLocal(packages[i], true));
            EXPECT_TRUE(isListed(ids[i]));
        }
    }
}
