#include <gtest/gtest.h>

#include <atomic>
#include <boost/thread/thread.hpp>
#include <chrono>
#include <mutex>
#include <thread>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/RecordingRunner.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::putPlugin;
using testsupport::RecordingRunner;
using testsupport::storedStatus;

namespace {

// A runner whose commands take a while and note when they begin and end.
class SlowRunner : public datacenter::CommandRunner {
public:
    int runShell(const std::string& command) override {
        note("begin " + command);
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        note("end " + command);
        return 0;
    }
    bool runPipe(const std::string& command, std::string&, int& status) override {
        status = runShell(command);
        return true;
    }
    std::vector<std::string> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

private:
    void note(const std::string& event) {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
    }
    std::mutex mutex_;
    std::vector<std::string> events_;
};

}  // namespace

TEST(StatusChange, EnableAndDisableRunTheControllerAndStoreTheStatus) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    putPlugin("501", datacenter::DISABLED);
    PluginManager::sSetPluginPort("501", "999999", datacenter::PID);

    EXPECT_EQ(API_SUCCESS, manager->changePluginStatus("501", datacenter::ENABLED));
    EXPECT_EQ(datacenter::ENABLED, storedStatus("501"));
    EXPECT_EQ((std::vector<std::string>{"pluginControllor -b 501 "}), runner->commands());
    // The start forgets stale process ids before the plugin records its new ones.
    EXPECT_EQ("", datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(PluginManager::sGetPluginPidConfig(),
                                                                            "pid_of_501"));

    EXPECT_EQ(API_SUCCESS, manager->changePluginStatus("501", datacenter::DISABLED));
    EXPECT_EQ(datacenter::DISABLED, storedStatus("501"));
    EXPECT_EQ("pluginControllor -k 501 ", runner->commands().back());
}

TEST(StatusChange, NoChangeInvalidStatusAndMissingManifestRunNothing) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    putPlugin("502", datacenter::DISABLED);
    putPlugin("503", datacenter::ENABLED);
    EXPECT_EQ(API_SUCCESS, manager->changePluginStatus("502", datacenter::DISABLED));
    EXPECT_EQ(API_INVALID_STATUS, manager->changePluginStatus("503", static_cast<datacenter::PluginStatus>(7)));
    EXPECT_EQ(API_NO_MANIFEST, manager->changePluginStatus("nothing", datacenter::ENABLED));
    EXPECT_TRUE(runner->commands().empty());
    EXPECT_EQ(datacenter::ENABLED, storedStatus("503"));
}

TEST(StatusChange, AFailingHookKeepsTheStoredStatus) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    runner->answer("pluginControllor -b", 1);
    runner->answer("pluginControllor -k", 2);
    putPlugin("504", datacenter::DISABLED);
    putPlugin("505", datacenter::ENABLED);
    EXPECT_EQ(API_GENERAL_FAILURE, manager->changePluginStatus("504", datacenter::ENABLED));
    EXPECT_EQ(datacenter::DISABLED, storedStatus("504"));
    EXPECT_EQ(API_GENERAL_FAILURE, manager->changePluginStatus("505", datacenter::DISABLED));
    EXPECT_EQ(datacenter::ENABLED, storedStatus("505"));
}

TEST(StatusChange, ChangesNeverInterleaveAndAMissingManifestDoesNotWait) {
    auto runner = std::make_shared<SlowRunner>();
    PluginManager* manager = Singleton<PluginManager>::instance();
    datacenter::CommandRunner::sInstall(runner);
    putPlugin("601", datacenter::DISABLED);
    putPlugin("602", datacenter::DISABLED);

    boost::thread first([manager] { manager->changePluginStatus("601", datacenter::ENABLED); });
    boost::thread second([manager] { manager->changePluginStatus("602", datacenter::ENABLED); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    // The manifest test comes before the lock: this answers while a change runs.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(API_NO_MANIFEST, manager->changePluginStatus("absent", datacenter::ENABLED));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    first.join();
    second.join();
    datacenter::CommandRunner::sInstall(nullptr);

    const std::vector<std::string> events = runner->events();
    ASSERT_EQ(4u, events.size());
    for (size_t i = 0; i < events.size(); i += 2) {
        EXPECT_EQ(0u, events[i].find("begin "));
        EXPECT_EQ("end " + events[i].substr(6), events[i + 1]);
    }
}

TEST(PluginCommands, CallSystemMapsExitStatusesAndUnknownIdsAreBinaryPlugins) {
    EXPECT_EQ(API_GENERAL_FAILURE, callSystem("", exitcode2Apicode));
    EXPECT_EQ(API_GENERAL_FAILURE, callSystem("exit 3", exitcode2Apicode));
    EXPECT_EQ(API_SUCCESS, callSystem("exit 0", exitcode2Apicode));
    EXPECT_EQ(API_GENERAL_FAILURE, callSystem("kill -9 $$", exitcode2Apicode));
    EXPECT_EQ(API_SUCCESS, Exitcode2Apicode(0));

    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::unique_ptr<AbsPlugin> unknown(manager->createPlugin("5017400000000000009"));
    EXPECT_NE(nullptr, dynamic_cast<BinaryPlugin*>(unknown.get()));
    EXPECT_EQ(API_SUCCESS, unknown->enableHook());
    EXPECT_EQ("pluginControllor -b 5017400000000000009 ", runner->commands().back());
    std::unique_ptr<AbsPlugin> samba(manager->createPlugin(SambaPlugin::Id()));
    EXPECT_NE(nullptr, dynamic_cast<SambaPlugin*>(samba.get()));
    EXPECT_EQ(API_SUCCESS, samba->enableHook());
    EXPECT_EQ("/etc/init.d/samba start_impl", runner->commands().back());
}
