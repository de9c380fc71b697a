// Plugin processes and files shared between processes, with real processes,
// real sockets and the stand-in plugin controller on PATH.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <mutex>
#include <thread>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/TestSupport.h"
#include "system/ConfigInfo.h"
#include "system/Environment.h"

namespace {

// Starts a child that sleeps, optionally ignoring SIGTERM, and reaps it on a
// thread of its own so that its death is seen at once (no zombie in /proc).
class Victim {
public:
    explicit Victim(bool ignoreTerm) {
        pid_ = fork();
        if (pid_ == 0) {
            if (ignoreTerm) {
                signal(SIGTERM, SIG_IGN);
            }
            execlp("sleep", "sleep", "60", static_cast<char*>(nullptr));
            _exit(127);
        }
        reaper_ = std::thread([this] { waitpid(pid_, &status_, 0); });
    }
    ~Victim() {
        kill(pid_, SIGKILL);
        if (reaper_.joinable()) {
            reaper_.join();
        }
    }
    int pid() const { return pid_; }
    // The signal that ended the child, once it has ended.
    int deathSignal() {
        reaper_.join();
        return WIFSIGNALED(status_) ? WTERMSIG(status_) : 0;
    }

private:
    pid_t pid_ = -1;
    int status_ = 0;
    std::thread reaper_;
};

void putPlugin(const std::string& id, datacenter::PluginStatus status) {
    datacenter::ConfigInfo* config = datacenter::ConfigInfo::sGetInstance();
    const std::string manifest = PluginStorageManager::sGetManifestRootPath() + id + ".manifest";
    config->setConfigToFile(manifest, "plugin_id", id);
    config->setConfigToFile(manifest, "status", std::to_string(static_cast<int>(status)));
}

}  // namespace

TEST(PluginProcesses, StopSendsTermThenKillToThoseThatIgnoreIt) {
    Victim polite(false);
    Victim stubborn(true);
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

// The last second after stopping is for processes that were recorded; a
// fresh install, with none, does not wait.
TEST(PluginProcesses, TheClosingWaitFollowsOnlyRecordedProcesses) {
    std::unique_ptr<AbsPlugin> plugin(Singleton<PluginManager>::instance()->createPlugin("r"));
    const long slept = datacenter::Environment::sSleptMilliseconds();
    plugin->killProcesses();
    EXPECT_EQ(slept, datacenter::Environment::sSleptMilliseconds());
    PluginManager::sSetPluginPort("r", "2147483600", datacenter::PID);  // gone already: no /proc entry to wait on
    plugin->killProcesses();
    EXPECT_EQ(slept + 1000, datacenter::Environment::sSleptMilliseconds());
}

TEST(PluginProcesses, AFailingStopCommandStillKillsTheProcessesAndKeepsTheStatus) {
    putPlugin("q", datacenter::ENABLED);
    testsupport::writeFile(testsupport::underRoot("/sim/pluginControllor/k.exit"), "3\n");
    Victim process(false);
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
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(listener, 4));
    socklen_t length = sizeof(address);
    getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);

    PluginManager* manager = Singleton<PluginManager>::instance();
    manager->setPluginPort("silent", std::to_string(ntohs(address.sin_port)), datacenter::PORT);
    std::string response;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(API_CONTROL_TIMEOUT, manager->controlPlugin("silent", "ping", response));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    close(listener);
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
