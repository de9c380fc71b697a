#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"
#include "system/ConfigInfo.h"
#include "unit/Plugin/PluginTestSupport.h"

using datacenter::ConfigInfo;
using testsupport::putPlugin;
using testsupport::RecordingRunner;

namespace {

const std::string kSamba = "5017400000000000007";

std::string appdata() {
    return testsupport::underRoot("/userdisk/appdata/");
}

}  // namespace

TEST(PluginManagerPaths, AnEmptyIdHasNoDataDirectory) {
    // Not the root of all plugins, which removals below a data directory would empty.
    EXPECT_EQ("", PluginManager::sGetPluginDataPath(""));
    EXPECT_EQ(PluginManager::sManifestFileName, PluginManager::sGetPluginManifestPath(""));
}

TEST(PluginManagerConstruction, CreatesPidFileAndStoreAndPublishesInstalledIds) {
    const auto runner = RecordingRunner::sInstall();
    // Published in id order, whatever the order they were stored in.
    putPlugin("id3", datacenter::ENABLED);
    putPlugin("id1", datacenter::DISABLED);
    putPlugin("id2", datacenter::ENABLED);
    testsupport::writeFile(testsupport::underRoot("/tmp/keep"), "");
    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_NE(nullptr, manager);
    struct stat st;
    ASSERT_EQ(0, stat(PluginManager::sGetPluginPidConfig().c_str(), &st));
    EXPECT_EQ(0777u, st.st_mode & 0777);
    EXPECT_EQ((std::vector<std::string>{"matool --method setKV --params plugin_id_list id1,id2,id3"}),
              runner->commands());

    // A second manager in a later process finds the pid file and keeps its entries.
    PluginManager::sSetPluginPort("id1", "77", datacenter::PID);
    PluginManager second;
    EXPECT_EQ("77", ConfigInfo::sGetInstance()->getConfigFromFile(PluginManager::sGetPluginPidConfig(), "pid_of_id1"));
    EXPECT_TRUE(second.isUndeletable(kSamba));
    EXPECT_FALSE(second.isUndeletable("id1"));

    // A link planted in place of the pid file is neither followed nor made 0777.
    const std::string outside = testsupport::underRoot("/outside-pids");
    ASSERT_EQ(0, unlink(PluginManager::sGetPluginPidConfig().c_str()));
    ASSERT_EQ(0, symlink(outside.c_str(), PluginManager::sGetPluginPidConfig().c_str()));
    PluginManager third;
    EXPECT_FALSE(testsupport::exists(outside));
    ASSERT_EQ(0, lstat(PluginManager::sGetPluginPidConfig().c_str(), &st));
    EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST(PluginManagerBookkeeping, PortsReplaceAndPidsAccumulateUntilReset) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    ConfigInfo* config = ConfigInfo::sGetInstance();
    manager->setPluginPort("p", "8080", datacenter::PORT);
    manager->setPluginPort("p", "8080", datacenter::PORT);
    EXPECT_EQ("8080", config->getConfig("port_of_p"));
    PluginManager::sSetPluginPort("p", "101", datacenter::PID);
    PluginManager::sSetPluginPort("p", "102", datacenter::PID);
    EXPECT_EQ("101;102", config->getConfigFromFile(PluginManager::sGetPluginPidConfig(), "pid_of_p"));
    EXPECT_EQ(API_SUCCESS, PluginManager::sSetPluginPort("p", "x", static_cast<datacenter::PluginSetValueType>(9)));
    manager->resetPluginPids("p");
    EXPECT_EQ("", config->getConfigFromFile(PluginManager::sGetPluginPidConfig(), "pid_of_p"));
    EXPECT_EQ("8080", config->getConfig("port_of_p"));
}

TEST(PluginManagerQueries, StatusAndRecordLookups) {
    const auto runner = RecordingRunner::sInstall();
    putPlugin("known", datacenter::DISABLED);
    PluginManager* manager = Singleton<PluginManager>::instance();
    datacenter::PluginStatus status = datacenter::DOWNLOADING;
    EXPECT_EQ(API_NO_SUCH_PLUGIN, manager->getPluginStatus("unknown", status));
    EXPECT_EQ(datacenter::DOWNLOADING, status);
    EXPECT_EQ(API_SUCCESS, manager->getPluginStatus("known", status));
    EXPECT_EQ(datacenter::DISABLED, status);

    datacenter::PluginInfo info;
    EXPECT_EQ(API_EMPTY_ARGUMENT, manager->getPluginById(info, ""));
    EXPECT_EQ(API_SUCCESS, manager->getPluginById(info, "known"));
    EXPECT_EQ("plugin known", info.name);
    EXPECT_EQ(API_SUCCESS, manager->getPluginById(info, "unknown"));
    EXPECT_TRUE(info.id.empty());

    EXPECT_EQ(API_SUCCESS, manager->updatePluginUseStatus("known", static_cast<datacenter::PluginUseStatus>(-5)));
    EXPECT_EQ(-5, static_cast<int>(Singleton<PluginStorageManager>::instance()->getPluginInfoById("known").useStatus));
}

TEST(PluginManagerDeveloper, SshManifestHasTokenAndCapabilitiesAndIsCopied) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_EQ(API_SUCCESS, manager->generatePluginSSHManifest("dev1", {"a", "b", "c"}));
    const std::string manifest = testsupport::underRoot("/userdisk/debug_app/etc/manifest");
    ConfigInfo* config = ConfigInfo::sGetInstance();
    EXPECT_EQ("dev1", config->getConfigFromFile(manifest, "plugin_id"));
    const std::string token = config->getConfigFromFile(manifest, "sdk_token");
    ASSERT_EQ(32u, token.size());
    EXPECT_EQ(std::string::npos, token.find_first_not_of("0123456789ABCDEF"));
    EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), config->getListFromFile(manifest, "capability_list"));
    EXPECT_EQ("dev1", config->getConfig("developerSSHPluginIdKey"));
    EXPECT_EQ(testsupport::readFile(manifest), testsupport::readFile(appdata() + "/urlinstall.qpk"));

    ASSERT_EQ(API_SUCCESS, manager->generatePluginSSHManifest("dev2", {}));
    EXPECT_TRUE(config->getListFromFile(manifest, "capability_list").empty());
    EXPECT_NE(std::string::npos, testsupport::readFile(manifest).find("capability_list = [ ];"));
    EXPECT_NE(token, config->getConfigFromFile(manifest, "sdk_token"));
}

TEST(PluginManagerItems, CodesSelectItemsAndTheGlobalLinkSwitchesTraffic) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    // With no plugin stored there is no list to publish: no command.
    manager->updatePluginListToServer();
    EXPECT_FALSE(manager->getItem(static_cast<ApiPluginCode>(2)));
    ASSERT_TRUE(manager->getItem(API_PLUGIN_ORBIS_STORE));
    EXPECT_EQ(API_PLUGIN_ORBIS_STORE, manager->getItem(API_PLUGIN_ORBIS_STORE)->getCode());
    boost::shared_ptr<PluginItemBase> link = manager->getItem(API_PLUGIN_GLOBAL_LINK);
    ASSERT_TRUE(link);
    EXPECT_EQ(API_SUCCESS, link->turnOn(""));
    EXPECT_EQ(API_SUCCESS, link->turnOff());
    manager->killAllPlugin();
    EXPECT_EQ((std::vector<std::string>{"/usr/sbin/sysapi traffic_ctl glink on",
                                        "/usr/sbin/sysapi traffic_ctl glink off", "plugin_stop_impl_KV01.sh"}),
              runner->commands());
}
