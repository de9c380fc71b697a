// Listing, install progress, metrics parsing and the router queries, with a
// recording command runner and a loopback web server for the router's API.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <sstream>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/HttpTestServer.h"
#include "support/LogCapture.h"
#include "support/RecordingRunner.h"
#include "support/SleepingChild.h"
#include "support/TestSupport.h"
#include "system/AppAccountManager.h"
#include "system/ConfigInfo.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::HttpResponse;
using testsupport::HttpTestServer;
using testsupport::RecordingRunner;
using testsupport::SleepingChild;

namespace {

void setPids(const std::string& id, const std::string& value) {
    datacenter::ConfigInfo::sGetInstance()->setConfigToFile(PluginManager::sGetPluginPidConfig(), "pid_of_" + id,
                                                            value);
}

// One line per record: id, status and progress.
std::string progressText(const std::vector<datacenter::PluginInfo>& records) {
    std::string text;
    for (const datacenter::PluginInfo& record : records) {
        text += record.id + " " + std::to_string(record.status) + " " + std::to_string(record.progress) + "\n";
    }
    return text;
}

// One line per process: pid, cpu, memory, reads and writes.
std::string metricsText(const std::vector<PidMetrics>& metrics) {
    std::ostringstream text;
    for (const PidMetrics& m : metrics) {
        text << m.pid << " " << m.cpuPercent << " " << m.memPercent << " " << m.readKBPerSec << " " << m.writeKBPerSec
             << "\n";
    }
    return text.str();
}

}  // namespace

TEST(Listing, ProgressGivesOneRecordPerRequestedIdInOrder) {
    PluginManager* manager = Singleton<PluginManager>::instance();
    testsupport::putPlugin("a", datacenter::ENABLED);
    testsupport::putPlugin("busy", datacenter::INSTALLING);
    std::vector<datacenter::PluginInfo> records;
    EXPECT_EQ(API_SUCCESS, manager->getPluginInstallProgress(records, "a;;b;busy;a"));
    // Unknown and empty ids give empty records (0: not installed); only one being installed has progress.
    EXPECT_EQ("a 5 0\n 0 0\nb 0 0\nbusy 3 100\na 5 0\n", progressText(records));
    EXPECT_EQ(API_SUCCESS, manager->getPluginInstallProgress(records, ""));
    EXPECT_TRUE(records.empty());

    EXPECT_EQ(API_SUCCESS, manager->getOnePlugin(records, "unknown"));
    EXPECT_TRUE(records.empty());
}

TEST(Metrics, ParsesTopAndPidstatPerOwnPidAndStopsAtABadEntry) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    testsupport::putPlugin("p", datacenter::ENABLED);
    SleepingChild first(false, PluginManager::sGetPluginDataPath("p"));
    SleepingChild second(false, PluginManager::sGetPluginDataPath("p"));
    SleepingChild foreign;
    const std::string a = std::to_string(first.pid());
    const std::string b = std::to_string(second.pid());
    runner->answer("top -p " + a + " ", 0, "1.5 2.5");
    runner->answer("pidstat -p " + a + " ", 0, "3.25 4.75");
    runner->answer("top -p " + b + " ", 0, "garbage");
    // A process of someone else and pid 1 are skipped, not sampled.
    setPids("p", a + ";;" + std::to_string(foreign.pid()) + ";1;" + b);
    std::vector<PidMetrics> metrics;
    ASSERT_TRUE(manager->getPluginMetrics("p", metrics));
    EXPECT_EQ(a + " 1.5 2.5 3.25 4.75\n" + b + " 0 0 0 0\n", metricsText(metrics));
    ASSERT_EQ(4u, runner->commands().size());
    EXPECT_EQ("top -p " + a + " -b -n 1 |sed -n 8p|grep " + a + "| awk '{print  $9, $10}'", runner->commands()[0]);
    EXPECT_EQ("pidstat -p " + a + " -d 1 1 |tail -n 1|grep " + a + "|awk '{print  $3, $4}'", runner->commands()[1]);

    // The pid text reaches a command line: only plain decimals of at most ten digits do.
    for (const char* bad : {"12345678901", "12 $(reboot)", "-1", "+5", "abc"}) {
        setPids("p", a + ";" + bad + ";" + b);
        const size_t before = runner->commands().size();
        metrics.clear();
        EXPECT_FALSE(manager->getPluginMetrics("p", metrics)) << bad;
        EXPECT_EQ(1u, metrics.size()) << bad;
        EXPECT_EQ(before + 2, runner->commands().size()) << bad;
    }
    // A flooded pid file costs at most 16 samples.
    std::string flood;
    for (int i = 0; i < 40; ++i) {
        flood += a + ";";
    }
    setPids("p", flood);
    metrics.clear();
    EXPECT_TRUE(manager->getPluginMetrics("p", metrics));
    EXPECT_EQ(16u, metrics.size());
    metrics.clear();
    EXPECT_TRUE(manager->getPluginMetrics("nothing_recorded", metrics));
    EXPECT_TRUE(metrics.empty());
    EXPECT_FALSE(manager->getPluginMetrics("../p", metrics));
}

TEST(Metrics, MonitorPutsOneObjectPerProcessIntoTheArray) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    testsupport::putPlugin("m", datacenter::ENABLED);
    SleepingChild child(false, PluginManager::sGetPluginDataPath("m"));
    runner->answer("top -p " + std::to_string(child.pid()) + " ", 0, "7 8");
    setPids("m", std::to_string(child.pid()));
    EXPECT_EQ(API_INVALID_STATUS, manager->monitorPlugin("m", nullptr));
    json_object* array = json_object_new_array();
    EXPECT_EQ(API_SUCCESS, manager->monitorPlugin("m", array));
    ASSERT_EQ(1u, json_object_array_length(array));
    json_object* item = json_object_array_get_idx(array, 0);
    json_object* value = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(item, "pid", &value));
    EXPECT_EQ(child.pid(), json_object_get_int(value));
    ASSERT_TRUE(json_object_object_get_ex(item, "cpuPercent", &value));
    EXPECT_DOUBLE_EQ(7, json_object_get_double(value));
    ASSERT_TRUE(json_object_object_get_ex(item, "writeKBPerSec", &value));
    json_object_put(array);
}

TEST(RouterQueries, MacComesFromTheFirstHWaddr) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::string mac = "unchanged";
    runner->answer("ifconfig", 0, "lo Link encap:Local Loopback\n");
    EXPECT_EQ(API_FAILED, manager->getRouterMac(mac));
    EXPECT_EQ("unchanged", mac);
    const auto second = RecordingRunner::sInstall();
    second->answer("ifconfig", 0,
                   "br-lan    Link encap:Ethernet  HWaddr 8C:53:C3:00:11:22\n"
                   "eth0      Link encap:Ethernet  HWaddr 8C:53:C3:00:11:23\n");
    EXPECT_EQ(API_SUCCESS, manager->getRouterMac(mac));
    EXPECT_EQ("8C:53:C3:00:11:22", mac);
}

TEST(RouterQueries, WebApiCallsGoToTheConfiguredHost) {
    EXPECT_EQ("localhost", PluginManager::sRouterWebHost());
    HttpTestServer server;
    server.route("/cgi-bin/luci/api/hvsystem/device_list", HttpResponse::text(200, "{\"devices\":[]}"));
    server.route("/cgi-bin/luci/;stok=token/api/hvsystem/set_mac_filter", HttpResponse::text(200, "{}"));
    PluginManager::sSetRouterWebHost("127.0.0.1:" + std::to_string(server.port()));
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::string devices;
    EXPECT_EQ(API_SUCCESS, manager->getConnectedDeviceList(devices));
    EXPECT_EQ("{\"devices\":[]}", devices);
    EXPECT_EQ(API_SUCCESS, manager->SetDeviceWan("AA:BB:CC:DD:EE:FF", true));
    EXPECT_EQ(API_SUCCESS, manager->SetDeviceWan("AA:BB:CC:DD:EE:FF", false));
    EXPECT_EQ(API_FAILED, manager->SetDeviceWan("AA&wan=1", false));
    const std::vector<testsupport::HttpRequest> requests = server.requests();
    ASSERT_EQ(3u, requests.size());
    EXPECT_EQ("mac=AA:BB:CC:DD:EE:FF&wan=1", requests[1].query);
    EXPECT_EQ("mac=AA:BB:CC:DD:EE:FF&wan=0", requests[2].query);
    server.stop();
    EXPECT_EQ(API_FAILED, manager->getConnectedDeviceList(devices));
    EXPECT_EQ(API_FAILED, manager->SetDeviceWan("AA:BB:CC:DD:EE:FF", true));
    PluginManager::sSetRouterWebHost("");
}

TEST(RouterQueries, CountryCheckAsksWithTheManifestVersion) {
    HttpTestServer server;
    server.route("/plugin/v2/summary", HttpResponse::text(200, "{\"code\":0,\"countryCode\":\"CN,US\"}"));
    AppAccountManager::sSetServerBase(server.url(""));
    PluginManager* manager = Singleton<PluginManager>::instance();
    testsupport::writeFile(PluginManager::sGetPluginManifestPath("5017"), "version = \"2.0.1\";\n");
    EXPECT_TRUE(manager->checkCountryCode("5017"));
    ASSERT_EQ(1u, server.requests().size());
    EXPECT_EQ("appId=5017&appVersion=2.0.1", server.requests()[0].query);
    EXPECT_FALSE(manager->checkCountryCode("../5017"));
    EXPECT_EQ(1u, server.requests().size());
}
