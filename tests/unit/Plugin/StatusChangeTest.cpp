#include <gtest/gtest.h>

#include <atomic>
#include <boost/thread/thread.hpp>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/GatedRunner.h"
#include "support/RecordingRunner.h"
#include "system/Environment.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::GatedRunner;
using testsupport::putPlugin;
using testsupport::RecordingRunner;
using testsupport::storedStatus;

// The commands, codes and stored status of each change are the golden cases
// of StatusChangeGoldenTest.
TEST(StatusChange, AStartForgetsStaleProcessIds) {
    const auto runner = RecordingRunner::sInstall();
    putPlugin("501", datacenter::DISABLED);
    PluginManager::sSetPluginPort("501", "999999", datacenter::PID);
    const long long slept = datacenter::Environment::sSleptMilliseconds();
    EXPECT_EQ(API_SUCCESS, Singleton<PluginManager>::instance()->changePluginStatus("501", datacenter::ENABLED));
    EXPECT_EQ("", datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(PluginManager::sGetPluginPidConfig(),
                                                                            "pid_of_501"));
    // No process of the plugin was signalled: nothing to wait for.
    PluginManager::sSetPluginPort("501", "999999", datacenter::PID);
    EXPECT_EQ(API_SUCCESS, Singleton<PluginManager>::instance()->changePluginStatus("501", datacenter::DISABLED));
    EXPECT_EQ(slept, datacenter::Environment::sSleptMilliseconds());
    EXPECT_EQ("", datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(PluginManager::sGetPluginPidConfig(),
                                                                            "pid_of_501"));
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

TEST(StatusChange, ChangesNeverInterleaveAndAMissingManifestDoesNotWait) {
    auto runner = std::make_shared<GatedRunner>();
    PluginManager* manager = Singleton<PluginManager>::instance();
    datacenter::CommandRunner::sInstall(runner);
    putPlugin("601", datacenter::DISABLED);
    putPlugin("602", datacenter::DISABLED);

    boost::thread first([manager] { manager->changePluginStatus("601", datacenter::ENABLED); });
    boost::thread second([manager] { manager->changePluginStatus("602", datacenter::ENABLED); });
    // One change is inside its command now, holding the lock.
    ASSERT_TRUE(runner->waitForEvents(1));
    // The manifest test comes before the lock: this answers while that change runs.
    auto absent = std::async(std::launch::async,
                             [manager] { return manager->changePluginStatus("absent", datacenter::ENABLED); });
    const bool answered = absent.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    // A moment for the other change to run into the lock (or, were there none, into its command).
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    runner->open();
    ASSERT_TRUE(answered) << "a change for a plugin without a manifest waited for the lock";
    EXPECT_EQ(API_NO_MANIFEST, absent.get());
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
