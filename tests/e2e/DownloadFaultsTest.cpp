// plugincenter's downloading installs on a home network's line: a loopback
// server cuts, stalls, trickles or changes the package, and the operator's
// view shows each attempt the download rides out. The download settings are
// shortened through the environment, so a row takes seconds; no row measures
// a duration (scripts/bench has the figures with the defaults).
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <iostream>
#include <regex>
#include <sstream>

#include "Plugin/PluginManager.h"
#include "Plugin/installAction/InstallAction.h"
#include "common/Singleton.h"
#include "support/HttpTestServer.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"
#include "system/CurlDownloader.h"

using testsupport::HttpTestServer;
using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::ServedFile;

namespace {

const size_t kKiB = 1024;
const size_t kMiB = 1024 * 1024;

// Bytes that do not compress, so that the package is as large as its files.
std::string noise(size_t size, uint32_t state) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

std::string plugincenter(const std::string& args) {
    return "DATACENTER_ROOT=" + testsupport::root() +
           " DATACENTER_DOWNLOAD_STALL_MS=1500 DATACENTER_DOWNLOAD_QUIET_MS=4000"
           " DATACENTER_DOWNLOAD_BACKOFF_MS=100 DATACENTER_DOWNLOAD_RETRIES=3 " +
           testsupport::buildDir() + "/apps/plugincenter " + args + " 2>/dev/null";
}

std::string package(PackageFactory& factory, const std::string& id, size_t size, const std::string& version,
                    int signType = 0) {
    PackageSpec spec;
    spec.id = id;
    spec.manifest["version"] = version;
    spec.files["big.bin"] = noise(size, static_cast<uint32_t>(size) + version.size());
    if (signType == 1) {
        spec.signType = 1;
        spec.signer = "official";
    }
    return testsupport::readFile(factory.build(spec, id + "-" + version));
}

// The staging folder holds nothing, and the plugin is neither recorded nor on the disk.
void expectNothingLeft(const std::string& id, const std::string& row) {
    const std::string staging = testsupport::underRoot("/userdisk/appdata/local_install_tmp");
    if (testsupport::exists(staging)) {
        EXPECT_TRUE(boost::filesystem::is_empty(staging)) << row;
    }
    EXPECT_FALSE(testsupport::exists(testsupport::underRoot("/userdisk/appdata/" + id))) << row;
    EXPECT_EQ(1, testsupport::runCommand(plugincenter("info " + id)).exitStatus) << row;
}

// Checks the lines of one install run: the download's percentage goes back
// only right after a line that says the file starts over; returns the
// retry lines ("connection lost at ...", "no data at ...", "the server sent ...").
std::vector<std::string> retryLines(const std::string& output, const std::string& row) {
    std::istringstream lines(output);
    std::vector<std::string> retries;
    int percent = -1;
    bool startedOver = false;
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_search(line, match, std::regex("^download ([0-9]+)%: "))) {
            const int now = std::stoi(match[1]);
            EXPECT_TRUE(now >= percent || startedOver) << row << ": " << percent << "% then " << line;
            percent = now;
            startedOver = false;
        } else if (std::regex_search(line, std::regex("^(connection lost at|no data at|the server sent)"))) {
            retries.push_back(line);
            startedOver = startedOver || line.find("starting over") != std::string::npos;
        }
    }
    return retries;
}

}  // namespace

TEST(PluginCenterDownload, InstallUrlRidesOutEveryFaultOfTheLineOrEndsCleanly) {
    PackageFactory factory;
    HttpTestServer server;
    struct Row {
        std::string name;
        std::string id;
        ServedFile file;
        bool installs = true;
        std::string retryPattern;  // every retry line matches it; empty: no retry line
        std::string version;       // what is installed
    };
    std::vector<Row> rows;
    rows.reserve(8);  // add() hands out a pointer into it
    const auto add = [&](const std::string& name, size_t size, bool installs, const std::string& retryPattern) {
        Row row;
        row.name = name;
        row.id = "50174000000000002" + std::to_string(10 + rows.size());
        row.installs = installs;
        row.retryPattern = retryPattern;
        row.version = "1.0.0";
        row.file.body = package(factory, row.id, size, "1.0.0");
        row.file.etag = "\"" + row.id + "-1\"";
        rows.push_back(row);
        return &rows.back().file;
    };
    // An 8 MB package cut after every MiB, from a server that sends the rest.
    ServedFile* file =
        add("cut every MiB, ranges", 8 * kMiB, true, "^connection lost at [0-9]+\\.0 MiB, resuming in 0\\.1 s$");
    file->cutEvery = kMiB;
    // A server without ranges sends the first 256 KiB again and again.
    file = add("cut every 256 KiB, no ranges", kMiB, false,
               "^(connection lost at 256\\.0 KiB, resuming in 0\\.1 s|the server sent the whole file again at 256\\.0 "
               "KiB: starting over)$");
    file->cutEvery = 256 * kKiB;
    file->ranges = false;
    file = add("stall once at 256 KiB", kMiB, true, "^no data at 256\\.0 KiB for too long, resuming in 0\\.1 s$");
    file->stallAt = 256 * kKiB;
    file =
        add("stall for good at 256 KiB", kMiB, false, "^no data at 256\\.0 KiB for too long, resuming in [0-9.]+ s$");
    file->stallAt = 256 * kKiB;
    file->stalls = -1;
    // The package is replaced after the first answer: the resumption gets
    // the new version whole and the file starts over.
    file = add("file changes between attempts", kMiB, true,
               "^(connection lost at [0-9.]+ [KM]iB, resuming in 0\\.1 s|the server sent the whole file again at "
               "256\\.0 KiB: starting over)$");
    file->cutEvery = 256 * kKiB;
    file->nextBody = package(factory, rows.back().id, kMiB, "2.0.0");
    file->nextEtag = "\"" + rows.back().id + "-2\"";
    rows.back().version = "2.0.0";
    // 64 KiB every 0.4 s, for longer than the stall time: slow, never silent.
    file = add("trickle above the limit", 512 * kKiB, true, "");
    file->chunkBytes = 64 * kKiB;
    file->chunkDelayMs = 400;

    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        server.serveFile("/" + row.id + ".qpk", row.file);
        const size_t sentBefore = server.bytesSent();
        const testsupport::CommandResult result =
            testsupport::runCommand(plugincenter("install-url " + server.url("/" + row.id + ".qpk")));
        const std::vector<std::string> retries = retryLines(result.output, row.name);
        EXPECT_EQ(row.retryPattern.empty(), retries.empty()) << result.output;
        for (const std::string& line : retries) {
            EXPECT_TRUE(std::regex_match(line, std::regex(row.retryPattern))) << line;
        }
        if (row.installs) {
            EXPECT_EQ(0, result.exitStatus) << result.output;
            EXPECT_NE(std::string::npos, result.output.find("installed " + row.id + ", code 0\n")) << result.output;
            const std::string info = testsupport::runCommand(plugincenter("info " + row.id + " --json")).output;
            EXPECT_NE(std::string::npos, info.find("\"version\":\"" + row.version + "\"")) << info;
        } else {
            // The download's own code on its line; the URL source's
            // signature check of what arrived ends the installation.
            EXPECT_EQ(1, result.exitStatus) << result.output;
            EXPECT_TRUE(std::regex_search(result.output,
                                          std::regex("\ndownload failed at [0-9.]+ [KM]iB of 1\\.0 MiB, code 2003\n")))
                << result.output;
            EXPECT_NE(std::string::npos, result.output.find("install failed at getPackage, code 2508\n"))
                << result.output;
            expectNothingLeft(row.id, row.name);
        }
        if (row.name == "file changes between attempts") {
            EXPECT_EQ(1, std::count_if(
                             retries.begin(), retries.end(),
                             [](const std::string& line) { return line.find("starting over") != std::string::npos; }))
                << result.output;
        }
        if (row.name == "cut every MiB, ranges") {
            const double ratio = static_cast<double>(server.bytesSent() - sentBefore) / row.file.body.size();
            std::cout << "cut every MiB of an 8 MB package, with ranges: the server sent " << ratio << "x the package"
                      << std::endl;
            ::testing::Test::RecordProperty("cut_every_mib_sent_ratio", std::to_string(ratio));
            EXPECT_LE(ratio, 1.10);
            EXPECT_EQ(8u, retries.size());
        }
    }
}

TEST(PluginCenterDownload, InstallServerResumesThroughTheSameDownloader) {
    PackageFactory factory;
    HttpTestServer server;
    const std::string id = "5017400000000000301";
    ServedFile file;
    file.body = package(factory, id, kMiB, "1.0.0", 1);
    file.lastModified = "Tue, 24 Nov 2026 10:00:00 GMT";
    file.cutEvery = 300 * kKiB;
    server.serveFile("/official.qpk", file);
    const testsupport::CommandResult result =
        testsupport::runCommand(plugincenter("install-server " + id + " " + server.url("/official.qpk")));
    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_EQ(3u, retryLines(result.output, "server").size()) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("installed " + id + ", code 0\n")) << result.output;
    for (const testsupport::HttpRequest& request : server.requests()) {
        if (!request.header("range").empty()) {
            EXPECT_EQ(file.lastModified, request.header("if-range"));
        }
    }
}

// In the process that runs the manager (the web interface's, which never
// exits): a download from a server that stopped sending ends, releases the
// installer's lock and leaves nothing, and the next installation runs.
TEST(PluginCenterDownload, ASilentServerEndsTheInstallationAndReleasesTheLock) {
    setenv("DATACENTER_DOWNLOAD_STALL_MS", "1000", 1);
    setenv("DATACENTER_DOWNLOAD_QUIET_MS", "2000", 1);
    setenv("DATACENTER_DOWNLOAD_BACKOFF_MS", "100", 1);
    PackageFactory factory;
    HttpTestServer server;
    const std::string id = "5017400000000000401";
    ServedFile silent;
    silent.body = package(factory, id, 512 * kKiB, "1.0.0", 1);
    silent.etag = "\"silent\"";
    silent.stallAt = 128 * kKiB;
    silent.stalls = -1;
    server.serveFile("/silent.qpk", silent);
    ServedFile whole = silent;
    whole.stallAt = std::string::npos;
    server.serveFile("/whole.qpk", whole);

    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_EQ(API_SUCCESS, manager->installFromServer(id, server.url("/silent.qpk")));
    ASSERT_TRUE(manager->waitForInstallation(120000));
    datacenter::PluginInfo info;
    manager->getUrlInstallPlugin(info);
    EXPECT_EQ(API_DOWNLOAD_FAILED, info.errorCode);
    EXPECT_EQ(datacenter::NOT_INSTALLED, info.status);
    datacenter::DownloadInfo download;
    ASSERT_TRUE(manager->currentAction()->getDownloadInfo(download));
    EXPECT_EQ(datacenter::DownloadInfo::sStateFailed, download.state);
    EXPECT_EQ(static_cast<int64_t>(128 * kKiB), download.downloadedBytes);
    EXPECT_FALSE(manager->currentAction()->downloadRetries().empty());
    expectNothingLeft(id, "silent");

    ASSERT_EQ(API_SUCCESS, manager->installFromServer(id, server.url("/whole.qpk")));
    ASSERT_TRUE(manager->waitForInstallation(120000));
    manager->getUrlInstallPlugin(info);
    EXPECT_EQ(API_SUCCESS, info.errorCode);
    EXPECT_EQ(datacenter::ENABLED, info.status);
}
