#include <gtest/gtest.h>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "storage/File.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::putPlugin;
using testsupport::RecordingRunner;
using testsupport::storedStatus;

namespace {

const std::string kTv = "5017400000000000010";
const std::string kSamba = "5017400000000000007";
const std::string kWelcome = "5017400000000000005";

std::string tvSetting(const std::string& key) {
    return datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(PluginManager::sGetPluginManifestPath(kTv), key);
}

void setTvSetting(const std::string& key, const std::string& value) {
    datacenter::ConfigInfo::sGetInstance()->setConfigToFile(PluginManager::sGetPluginManifestPath(kTv), key, value);
}

}  // namespace

TEST(TvApp, NeedsFileSharingAndDisablingFileSharingDisablesItFirst) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    putPlugin(kTv, datacenter::DISABLED);
    EXPECT_EQ(API_TVAPP_NEEDS_SAMBA, manager->changePluginStatus(kTv, datacenter::ENABLED));
    EXPECT_TRUE(runner->commands().empty());

    // The commands of each change are the golden cases of StatusChangeGoldenTest.
    putPlugin(kSamba, datacenter::DISABLED);
    EXPECT_EQ(API_SUCCESS, manager->changePluginStatus(kTv, datacenter::ENABLED));
    EXPECT_EQ("false", tvSetting("userDisable"));
    EXPECT_EQ(datacenter::ENABLED, storedStatus(kSamba));
    EXPECT_EQ(API_SUCCESS, manager->changePluginStatus(kSamba, datacenter::DISABLED));
    EXPECT_EQ("true", tvSetting("userDisable"));
    EXPECT_EQ(datacenter::DISABLED, storedStatus(kTv));
    EXPECT_EQ(datacenter::DISABLED, storedStatus(kSamba));
}

TEST(TvApp, AFailingTvStopKeepsFileSharingOn) {
    const auto runner = RecordingRunner::sInstall();
    runner->answer("/etc/init.d/lumoapp stop", 1);
    putPlugin(kTv, datacenter::ENABLED);
    putPlugin(kSamba, datacenter::ENABLED);
    EXPECT_EQ(API_GENERAL_FAILURE,
              Singleton<PluginManager>::instance()->changePluginStatus(kSamba, datacenter::DISABLED));
    EXPECT_FALSE(runner->ran("/etc/init.d/samba stop"));
    EXPECT_EQ(datacenter::ENABLED, storedStatus(kSamba));
}

TEST(TvAppFirstConnect, ActivatesOnceAndAUserDisabledAppStaysOff) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    EXPECT_EQ(API_NO_SUCH_PLUGIN, manager->enableLumoapp());
    putPlugin(kTv, datacenter::DISABLED);
    putPlugin(kSamba, datacenter::ENABLED);
    setTvSetting("userDisable", "true");
    EXPECT_EQ(API_TVAPP_SWITCHED_OFF, manager->enableLumoapp());
    EXPECT_EQ(datacenter::DISABLED, storedStatus(kTv));
    EXPECT_EQ("FirstconnectValue", tvSetting("Firstconnectkey"));
    EXPECT_TRUE(runner->commands().empty());

    setTvSetting("userDisable", "false");
    setTvSetting("Firstconnectkey", "");
    EXPECT_EQ(API_SUCCESS, manager->enableLumoapp());
    EXPECT_EQ(datacenter::ENABLED, storedStatus(kTv));
    EXPECT_EQ(
        (std::vector<std::string>{"/etc/init.d/samba start_impl", "/etc/init.d/lumoapp start_impl",
                                  "pushClient {\"type\":31} \"\" \"\" 1", "pushClient {\"type\":32} \"\" \"\" 1"}),
        runner->commands());
    // Once activated, a second connect sends nothing.
    EXPECT_EQ(API_SUCCESS, manager->enableLumoapp());
    EXPECT_EQ(4u, runner->commands().size());
    // An app that is on already is only told of the first connect.
    setTvSetting("Firstconnectkey", "");
    EXPECT_EQ(API_SUCCESS, manager->enableLumoapp());
    EXPECT_EQ("pushClient {\"type\":31} \"\" \"\" 1", runner->commands().back());
    EXPECT_EQ(5u, runner->commands().size());
    EXPECT_EQ("FirstconnectValue", tvSetting("Firstconnectkey"));
}

TEST(WelcomePage, NeedsAHomepageAndAppliesOnlyValidDurations) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    putPlugin(kWelcome, datacenter::NOT_INSTALLED);
    EXPECT_EQ(API_WELCOME_NO_HOMEPAGE, manager->changePluginStatus(kWelcome, datacenter::ENABLED));
    EXPECT_EQ(datacenter::DISABLED, storedStatus(kWelcome));
    EXPECT_TRUE(runner->commands().empty());

    EXPECT_EQ(API_GENERAL_FAILURE, manager->setPluginConfigData(kWelcome, "internet_access_duration", "60"));
    EXPECT_TRUE(runner->commands().empty());
    EXPECT_EQ(API_SUCCESS, manager->setPluginConfigData(kWelcome, "internet_access_duration", "120"));
    EXPECT_EQ("lua /usr/sbin/portalfilter -t 120", runner->commands().back());
    std::string stored;
    manager->getPluginConfigData(kWelcome, "internet_access_duration", stored);
    EXPECT_EQ("", stored);

    ASSERT_EQ(API_SUCCESS, manager->setPluginConfigData(kWelcome, "homepage", "http://portal"));
    runner->answer("portalfilter -c on", 5);
    // The portal filter's own exit status is passed up as it is.
    EXPECT_EQ(5, manager->changePluginStatus(kWelcome, datacenter::ENABLED));
    EXPECT_TRUE(is_valid_duration("0"));
    EXPECT_FALSE(is_valid_duration(""));
}

TEST(MediaServer, FindsItsDatabaseAndDeletesItWhenSwitchedOff) {
    const auto runner = RecordingRunner::sInstall();
    const std::string dbDir = testsupport::makeScratchDir("dlna");
    testsupport::writeFile(testsupport::underRoot("/tmp/minidlna.conf"),
                           "#db_dir=/x\nport=8200\n  db_dir =  " + dbDir + "  \nmedia_dir=/m\n");
    testsupport::writeFile(dbDir + "/files.db", "db");
    MinidlnaPlugin dlna(Singleton<PluginManager>::instance(), MinidlnaPlugin::Id());
    EXPECT_EQ(dbDir + "/files.db", dlna.getDbPath());
    runner->answer("minidlna stop", 1);
    EXPECT_EQ(API_GENERAL_FAILURE, dlna.disableHook());
    EXPECT_FALSE(datacenter::File::sExists(dbDir + "/files.db"));

    testsupport::writeFile(testsupport::underRoot("/tmp/minidlna.conf"), "# db_dir = /x\n");
    EXPECT_EQ("", dlna.getDbPath());
}

TEST(PreloadCaches, RemoveTheCacheOnlyWhenTheServiceReportsOne) {
    const auto runner = RecordingRunner::sInstall();
    runner->answer("cachecenter status", 0, "0\n");
    SougouPreloadPlugin sougou(nullptr, SougouPreloadPlugin::Id());
    EXPECT_TRUE(sougou.removePluginData());
    EXPECT_EQ((std::vector<std::string>{"/etc/init.d/cachecenter status"}), runner->commands());

    const auto second = RecordingRunner::sInstall();
    second->answer("cachecenter status", 0, "1");
    BaiduPreloadPlugin baidu(nullptr, BaiduPreloadPlugin::Id());
    EXPECT_TRUE(baidu.removePluginData());
    EXPECT_EQ("rm -rf " + testsupport::underRoot("/userdisk/cachecenter"), second->commands().back());
}
