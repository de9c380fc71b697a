// How the URL and local entry points start an installation and what their
// progress record shows.
#include <gtest/gtest.h>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/HttpTestServer.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::HttpResponse;
using testsupport::HttpTestServer;

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
    testsupport::PackageFactory factory;
    const std::string package = factory.build(testsupport::PackageSpec(), "record");
    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_EQ(API_SUCCESS, manager->installFromLocal(package, false));
    datacenter::PluginInfo info;
    ASSERT_EQ(API_SUCCESS, manager->getUrlInstallPlugin(info));
    EXPECT_EQ(testsupport::PackageSpec().id, info.id);
    EXPECT_EQ(datacenter::ENABLED, info.status);
}
