// Plugin processes and files shared between processes, with real processes,
// real sockets and the stand-in plugin controller on PATH.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/SilentListener.h"
#include "support/SleepingChild.h"
#include "support/TestSupport.h"
#include "system/ConfigInfo.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::SleepingChild;

TEST(PluginProcesses, StopSendsTermThenKillToThoseThatIgnoreIt) {
    SleepingChild polite;
    SleepingChild stubborn(true);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    PluginManager* manager = Singleton<PluginManager>::instance();
    for (const std::string& entry :
         {std::to_string(polite.pid()), std::string(), std::string("abc"), std::to_string(stubborn.pid())}) {
        PluginManager::sSetPluginPort("p", entry, datacenter::PID);
    }
    std::unique_ptr<AbsPlugin> plugin(manager->createPlugin("p"));
    plugin->killProcesses();
    EXPECT_EQ(SIGTERM, polite.deathSignal());
    EXPECT_EQ(SIGKILL, stubborn.deathSignal());
    EXPECT_EQ("", datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(PluginManager::sGetPluginPidConfig(),
                                                                            "pid_of_p"));
}

TEST(PluginProcesses, AFailingStopCommandStillKillsTheProcessesAndKeepsTheStatus) {
    testsupport::putPlugin("q", datacenter::ENABLED);
    testsupport::writeFile(testsupport::underRoot("/sim/pluginControllor/k.exit"), "3\n");
    SleepingChild process;
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

TEST(PluginControl, AServerThatNeverAnswersTimesOut) {
    testsupport::SilentListener listener;
    PluginManager* manager = Singleton<PluginManager>::instance();
    manager->setPluginPort("silent", std::to_string(listener.port()), datacenter::PORT);
    std::string response;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(API_CONTROL_TIMEOUT, manager->controlPlugin("silent", "ping", response));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
}

TEST(PluginConfigData, TwoProcessesWritingDifferentKeysLoseNone) {
    PluginManager* manager = Singleton<PluginManager>::instance();
    const int rounds = 500;
    std::vector<pid_t> writers;
    for (const char* prefix : {"a", "b"}) {
        const pid_t pid = fork();
        if (pid == 0) {
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
    int missing = 0;
    for (int i = 0; i < rounds; ++i) {
        for (const char* prefix : {"a", "b"}) {
            std::string value;
            manager->getPluginConfigData("shared", prefix + std::to_string(i), value);
            missing += value != "v";
        }
    }
    EXPECT_EQ(0, missing);
}
