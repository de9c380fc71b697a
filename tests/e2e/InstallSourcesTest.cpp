// Server, upgrade, URL and local installations through the manager in this
// process, against a loopback HTTP server: how each starts, what its
// progress record shows and what a failure leaves.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/GatedRunner.h"
#include "support/HttpTestServer.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::exists;
using testsupport::HttpResponse;
using testsupport::HttpTestServer;
using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::storedStatus;
using testsupport::underRoot;

namespace {

const std::string kId = "5017400000000000100";

std::string dataDir(const std::string& id = kId) {
    return underRoot("/userdisk/appdata/") + id + "/";
}

datacenter::PluginInfo finished(PluginManager* manager) {
    EXPECT_TRUE(manager->waitForInstallation(60000));
    datacenter::PluginInfo info;
    manager->getUrlInstallPlugin(info);
    return info;
}

// The names in the staging folder (none when it does not exist).
std::vector<std::string> stagedNames() {
    std::vector<std::string> names;
    const std::string staging = underRoot("/userdisk/appdata/local_install_tmp");
    if (exists(staging)) {
        for (const auto& entry : boost::filesystem::directory_iterator(staging)) {
            names.push_back(entry.path().filename().string());
        }
    }
    return names;
}

}  // namespace

TEST(InstallFromServer, RunsOnItsOwnThreadAndRefusesASecondInstallation) {
    PackageFactory factory;
    PackageSpec spec;
    spec.signType = 1;
    spec.signer = "official";
    spec.files["big.bin"] = std::string(256 * 1024, 'x');
    const std::string package = testsupport::readFile(factory.build(spec, "official"));
    HttpTestServer server;
    server.route("/pkg.qpk", HttpResponse::slow(package, 16 * 1024, 40));

    PluginManager* manager = Singleton<PluginManager>::instance();
    datacenter::PluginInfo info;
    EXPECT_EQ(API_NO_SUCH_PLUGIN, manager->getUrlInstallPlugin(info));
    ASSERT_EQ(API_SUCCESS, manager->installFromServer(kId, server.url("/pkg.qpk")));
    EXPECT_EQ(API_INSTALL_IN_PROGRESS, manager->installFromServer("5017400000000000101", server.url("/pkg.qpk")));
    EXPECT_EQ(API_INSTALL_IN_PROGRESS, manager->installFromLocal("/nonexistent.qpk", false));
    EXPECT_EQ(API_INSTALL_IN_PROGRESS, manager->installFromUrl(server.url("/pkg.qpk")));

    ASSERT_EQ(API_SUCCESS, manager->getUrlInstallPlugin(info));
    EXPECT_EQ(kId, info.id);
    EXPECT_TRUE(info.status == datacenter::DOWNLOADING || info.status == datacenter::INSTALLING);
    EXPECT_GE(info.progress, 0);
    EXPECT_LT(info.progress, 100);
    // Downloads and verified payloads have no name: nothing that reaches the
    // user disk can open them while the installation runs.
    EXPECT_EQ(std::vector<std::string>(), stagedNames()) << "while downloading";

    info = finished(manager);
    EXPECT_EQ(datacenter::ENABLED, info.status);
    EXPECT_EQ(API_SUCCESS, info.errorCode);
    EXPECT_EQ(100, info.progress);
    EXPECT_EQ(datacenter::ENABLED, storedStatus(kId));
    // Nothing of the download is left; the plugin's files stay.
    EXPECT_EQ(std::vector<std::string>(), stagedNames());
    EXPECT_FALSE(exists(dataDir() + "korvia.qpk"));
    EXPECT_TRUE(exists(dataDir() + "big.bin"));

    // A new-plugin install of an installed plugin is refused before any thread starts.
    EXPECT_EQ(API_ALREADY_INSTALLED, manager->installFromServer(kId, server.url("/pkg.qpk")));
}

TEST(InstallFromServer, AcceptsOnlyOfficialPackagesAndTheIdItAskedFor) {
    PackageFactory factory;
    HttpTestServer server;
    server.route("/dev.qpk", HttpResponse::text(200, testsupport::readFile(factory.build(PackageSpec(), "dev"))));
    PackageSpec official;
    official.signType = 1;
    official.signer = "official";
    const std::string other = testsupport::readFile(factory.build(official, "other"));
    std::string flipped = other;
    flipped[20] = static_cast<char>(flipped[20] ^ 1);
    server.route("/other.qpk", HttpResponse::text(200, other));
    server.route("/flipped.qpk", HttpResponse::text(200, flipped));
    server.route("/missing.qpk", HttpResponse::text(404, "no"));

    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_EQ(API_SUCCESS, manager->installFromServer(kId, server.url("/dev.qpk")));
    EXPECT_EQ(API_SIGN_TYPE_UNSUPPORTED, finished(manager).errorCode);
    EXPECT_FALSE(exists(dataDir() + "korvia.qpk"));

    ASSERT_EQ(API_SUCCESS, manager->installFromServer("5017400000000000555", server.url("/other.qpk")));
    EXPECT_EQ(API_PLUGIN_ID_MISMATCH, finished(manager).errorCode);

    ASSERT_EQ(API_SUCCESS, manager->installFromServer("5017400000000000556", server.url("/missing.qpk")));
    const datacenter::PluginInfo failed = finished(manager);
    EXPECT_EQ(API_DOWNLOAD_FAILED, failed.errorCode);
    EXPECT_EQ(datacenter::NOT_INSTALLED, failed.status);

    EXPECT_EQ(API_GET_PACKAGE_FAILED, manager->installFromServer("../escape", server.url("/other.qpk")));

    // A URL download, refused or installed, leaves no file behind either.
    for (const auto& row :
         {std::make_pair("/flipped.qpk", API_VERIFY_SIGN_FAILED), std::make_pair("/dev.qpk", API_SUCCESS)}) {
        ASSERT_EQ(API_SUCCESS, manager->installFromUrl(server.url(row.first))) << row.first;
        EXPECT_EQ(row.second, finished(manager).errorCode) << row.first;
        EXPECT_EQ(std::vector<std::string>(), stagedNames()) << row.first;
    }
}

// While an upgrade runs, the listing of that plugin and its progress show
// the running installation, not the record of the version being replaced.
TEST(InstallProgress, ARunningUpgradeReportsItsOwnRecord) {
    PackageFactory factory;
    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_EQ(API_SUCCESS, manager->installFromLocal(factory.build(PackageSpec(), "v1"), false));
    PackageSpec v2;
    v2.signType = 1;
    v2.signer = "official";
    v2.manifest["version"] = "2.0.0";
    // Bytes that do not compress, so that the download takes many pieces.
    std::string noise(1024 * 1024, '\0');
    unsigned seed = 1;
    for (char& byte : noise) {
        seed = seed * 1103515245u + 12345u;
        byte = static_cast<char>(seed >> 16);
    }
    v2.files["big.bin"] = noise;
    HttpTestServer server;
    server.route("/v2.qpk", HttpResponse::slow(testsupport::readFile(factory.build(v2, "v2")), 16 * 1024, 40));
    // The enable step waits at the gate: the installation stays INSTALLING.
    const auto runner = std::make_shared<testsupport::GatedRunner>(" -b ");
    datacenter::CommandRunner::sInstall(runner);
    ASSERT_EQ(API_SUCCESS, manager->upgradeFromServer(kId, server.url("/v2.qpk")));

    std::vector<datacenter::PluginInfo> progress;
    std::vector<datacenter::PluginInfo> listed;
    bool sawDownload = false;
    for (int poll = 0; poll < 6000 && !sawDownload && runner->events().empty(); ++poll) {
        manager->getPluginInstallProgress(progress, kId);
        sawDownload = progress.at(0).status == datacenter::DOWNLOADING && progress[0].progress > 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(sawDownload) << "no download percentage was reported";
    manager->getOnePlugin(listed, kId);
    ASSERT_EQ(1u, listed.size());
    EXPECT_NE(datacenter::ENABLED, listed[0].status);

    ASSERT_TRUE(runner->waitForEvents(1));
    manager->getOnePlugin(listed, kId);
    manager->getPluginInstallProgress(progress, kId);
    runner->open();
    EXPECT_EQ(datacenter::INSTALLING, listed.at(0).status);
    EXPECT_EQ(datacenter::INSTALLING, progress.at(0).status);
    EXPECT_EQ(100, progress[0].progress);
    EXPECT_EQ(datacenter::ENABLED, finished(manager).status);
    datacenter::CommandRunner::sInstall(nullptr);
}

TEST(InstallStart, AUrlInstallationIsRunningAsSoonAsTheCallReturns) {
    HttpTestServer server;
    server.route("/stall.qpk", HttpResponse::stalled());
    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_EQ(API_SUCCESS, manager->installFromUrl(server.url("/stall.qpk")));
    // Whether or not its thread has begun, a second request is refused and
    // the record shows the download.
    EXPECT_EQ(API_INSTALL_IN_PROGRESS, manager->installFromUrl(server.url("/stall.qpk")));
    EXPECT_EQ(API_INSTALL_IN_PROGRESS, manager->installFromLocal("/nonexistent.qpk", false));
    datacenter::PluginInfo info;
    ASSERT_EQ(API_SUCCESS, manager->getUrlInstallPlugin(info));
    EXPECT_EQ(datacenter::DOWNLOADING, info.status);
    server.stop();
    EXPECT_TRUE(manager->waitForInstallation(60000));
}

TEST(InstallStart, ALocalInstallationsRecordCarriesThePackagesId) {
    PackageFactory factory;
    const std::string package = factory.build(PackageSpec(), "record");
    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_EQ(API_SUCCESS, manager->installFromLocal(package, false));
    datacenter::PluginInfo info;
    ASSERT_EQ(API_SUCCESS, manager->getUrlInstallPlugin(info));
    EXPECT_EQ(PackageSpec().id, info.id);
    EXPECT_EQ(datacenter::ENABLED, info.status);
}
