// Plugin processes and files shared between processes, with real processes,
// real sockets, the real top/pidstat and the stand-in plugin controller on
// PATH: which pids are signalled and how, resource metrics of live children,
// control calls that time out, and configuration writers in four processes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/ChildServer.h"
#include "support/PluginStopCases.h"
#include "support/SilentListener.h"
#include "support/SleepingChild.h"
#include "support/TestSupport.h"
#include "system/ConfigInfo.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::runApp;
using testsupport::SleepingChild;

TEST(PluginProcesses, AFailingStopCommandStillKillsTheProcessesAndKeepsTheStatus) {
    testsupport::putPlugin("q", datacenter::ENABLED);
    testsupport::writeFile(testsupport::underRoot("/sim/pluginControllor/k.exit"), "3\n");
    SleepingChild process(false, PluginManager::sGetPluginDataPath("q"));
    PluginManager* manager = Singleton<PluginManager>::instance();
    PluginManager::sSetPluginPort("q", std::to_string(process.pid()), datacenter::PID);
    EXPECT_EQ(API_GENERAL_FAILURE, manager->changePluginStatus("q", datacenter::DISABLED));
    EXPECT_EQ(SIGTERM, process.deathSignal());
    datacenter::PluginStatus status = datacenter::NOT_INSTALLED;
    manager->getPluginStatus("q", status);
    EXPECT_EQ(datacenter::ENABLED, status);
    const std::string log = testsupport::readFile(testsupport::underRoot("/tmp/sim-commands.log"));
    EXPECT_NE(std::string::npos, log.find("pluginControllor -k q\n"));
}

TEST(PluginMetrics, OneRecordPerLiveChildFromTheRealTools) {
    testsupport::putPlugin("m", datacenter::ENABLED);
    SleepingChild first(false, PluginManager::sGetPluginDataPath("m"));
    SleepingChild second(false, PluginManager::sGetPluginDataPath("m"));
    PluginManager* manager = Singleton<PluginManager>::instance();
    datacenter::ConfigInfo::sGetInstance()->setConfigToFile(
        PluginManager::sGetPluginPidConfig(), "pid_of_m",
        std::to_string(first.pid()) + ";" + std::to_string(second.pid()));
    std::vector<PidMetrics> metrics;
    ASSERT_TRUE(manager->getPluginMetrics("m", metrics));
    ASSERT_EQ(2u, metrics.size());
    EXPECT_EQ(first.pid(), metrics[0].pid);
    EXPECT_EQ(second.pid(), metrics[1].pid);
    for (const PidMetrics& one : metrics) {
        // A sleeping process reads and writes nothing; a column slip would
        // put its pid here.
        EXPECT_EQ(0, one.readKBPerSec) << one.pid;
        EXPECT_EQ(0, one.writeKBPerSec) << one.pid;
        EXPECT_GE(one.memPercent, 0);
        EXPECT_LT(one.memPercent, 100);
    }
    datacenter::ConfigInfo::sGetInstance()->setConfigToFile(PluginManager::sGetPluginPidConfig(), "pid_of_m",
                                                            std::to_string(first.pid()) + ";12345678901");
    metrics.clear();
    EXPECT_FALSE(manager->getPluginMetrics("m", metrics));
    EXPECT_EQ(1u, metrics.size());
    EXPECT_EQ(1, runApp("plugincenter", "metrics m").exitStatus);
    datacenter::ConfigInfo::sGetInstance()->setConfigToFile(PluginManager::sGetPluginPidConfig(), "pid_of_m",
                                                            std::to_string(first.pid()));
    const std::string json = runApp("plugincenter", "metrics m --json").output;
    EXPECT_NE(std::string::npos, json.find("\"pid\":" + std::to_string(first.pid()) + ",")) << json;
}

TEST(PluginControl, AServerThatNeverAnswersTimesOut) {
    testsupport::ChildServer listener(PluginManager::sGetPluginDataPath("silent"),
                                      [] { return (new testsupport::SilentListener)->port(); });
    PluginManager* manager = Singleton<PluginManager>::instance();
    manager->setPluginPort("silent", std::to_string(listener.port()), datacenter::PORT);
    std::string response;
    EXPECT_EQ(API_CONTROL_TIMEOUT, manager->controlPlugin("silent", "ping", response));
}

TEST(PluginConfigData, FourProcessesWritingDifferentKeysLoseNone) {
    // The writers are forked before this process makes any singleton, so
    // each one builds its own state as a separate program would.
    const int rounds = 250;
    std::vector<pid_t> writers;
    for (const char* prefix : {"a", "b", "c", "d"}) {
        const pid_t pid = fork();
        if (pid == 0) {
            PluginManager* manager = Singleton<PluginManager>::instance();
            for (int i = 0; i < rounds; ++i) {
                if (manager->setPluginConfigData("shared", prefix + std::to_string(i), "v") != API_SUCCESS) {
                    _exit(1);
                }
            }
            _exit(0);
        }
        writers.push_back(pid);
    }
    for (const pid_t pid : writers) {
        int status = 0;
        waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    PluginManager* manager = Singleton<PluginManager>::instance();
    int missing = 0;
    for (int i = 0; i < rounds; ++i) {
        for (const char* prefix : {"a", "b", "c", "d"}) {
            std::string value;
            manager->getPluginConfigData("shared", prefix + std::to_string(i), value);
            missing += value != "v";
        }
    }
    EXPECT_EQ(0, missing);
}

TEST(PluginStop, EveryProcessOfThePluginEndsAndNothingForgesItsRecord) {
    testsupport::runPluginStopCases();
}
