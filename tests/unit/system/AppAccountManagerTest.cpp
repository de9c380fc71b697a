#include <glog/logging.h>
#include <gtest/gtest.h>

#include <mutex>

#include "support/HttpTestServer.h"
#include "support/LogCapture.h"
#include "support/TestSupport.h"
#include "system/AppAccountManager.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::HttpResponse;
using testsupport::HttpTestServer;

TEST(AppAccount, KnownIdsNeedNoRequestAndConfirmedIdsAreRemembered) {
    HttpTestServer server;
    server.route("/plugin/v2/summary", HttpResponse::text(200, "{\"code\":0}", "application/json"));
    AppAccountManager::sSetServerBase(server.url(""));
    testsupport::putPlugin("installed1", datacenter::ENABLED);
    AppAccountManager accounts;
    EXPECT_FALSE(accounts.IsValidAppId(""));
    EXPECT_TRUE(accounts.IsValidAppId("installed1"));
    EXPECT_TRUE(server.requests().empty());

    testsupport::LogCapture log;
    EXPECT_TRUE(accounts.IsValidAppId("5017"));
    ASSERT_EQ(1u, server.requests().size());
    EXPECT_EQ("/plugin/v2/summary?appId=5017", server.requests()[0].target);
    EXPECT_TRUE(log.contains("stat_points_none datacenter_api_duration=get_app_id_from_server:"));

    server.stop();
    EXPECT_TRUE(accounts.IsValidAppId("5017"));
    EXPECT_FALSE(accounts.IsValidAppId("6018"));
}

TEST(AppAccount, RefusalsAndBrokenRepliesAreNotRemembered) {
    HttpTestServer server;
    server.route("/plugin/v2/summary", [](const testsupport::HttpRequest& request) {
        if (request.query == "appId=refused") {
            return HttpResponse::text(200, "{\"code\":3}");
        }
        return HttpResponse::text(200, "not json");
    });
    AppAccountManager::sSetServerBase(server.url(""));
    AppAccountManager accounts;
    EXPECT_FALSE(accounts.IsValidAppId("refused"));
    EXPECT_FALSE(accounts.IsValidAppId("broken"));
    EXPECT_FALSE(accounts.IsValidAppId("refused"));
    EXPECT_EQ(3u, server.requests().size());
}

TEST(AppAccount, CountriesComeFromTheServiceListExactly) {
    HttpTestServer server;
    server.route("/plugin/v2/summary", HttpResponse::text(200, "{\"code\":0,\"countryCode\":\"CN,,US\"}"));
    AppAccountManager::sSetServerBase(server.url(""));
    AppAccountManager accounts;
    EXPECT_TRUE(accounts.isSupportedCountryCode("5017", "US", "1.0.0"));
    EXPECT_TRUE(accounts.isSupportedCountryCode("5017", "CN", "1.0.0"));
    EXPECT_FALSE(accounts.isSupportedCountryCode("5017", "us", "1.0.0"));
    EXPECT_EQ("/plugin/v2/summary?appId=5017&appVersion=1.0.0", server.requests()[0].target);
    const size_t asked = server.requests().size();
    EXPECT_FALSE(accounts.isSupportedCountryCode("5017", "US", ""));
    EXPECT_EQ(asked, server.requests().size());

    server.route("/plugin/v2/summary", HttpResponse::text(200, "{\"code\":0}"));
    EXPECT_FALSE(accounts.isSupportedCountryCode("5017", "US", "1.0.0"));
}
