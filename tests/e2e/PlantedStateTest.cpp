// What a plugin or a local user can write, planted where the root-run core
// looks next: pids in the world-writable pid file, a journal and a held lock,
// edited capabilities, an "@include" or links in the manifest store, a linked
// migration folder, an RPC server that trickles. Each case checks what the
// core did and that nothing outside the plugin changed.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/LogCapture.h"
#include "support/SleepingChild.h"
#include "support/TestSupport.h"
#include "system/ConfigInfo.h"
#include "system/ProcessOwnership.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::SleepingChild;

namespace {

// A child that has ended and is not reaped until the object goes: a zombie.
class Zombie {
public:
    Zombie() {
        pid_ = fork();
        if (pid_ == 0) {
            _exit(0);
        }
        for (int tries = 0; tries < 10000 && !isZombie(); ++tries) {
            usleep(1000);
        }
    }
    ~Zombie() { waitpid(pid_, nullptr, 0); }
    pid_t pid() const { return pid_; }
    bool isZombie() const {
        std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
        std::string text;
        std::getline(stat, text);
        const size_t close = text.rfind(')');
        return close != std::string::npos && text.compare(close, 3, ") Z") == 0;
    }

private:
    pid_t pid_ = -1;
};

int pidMax() {
    std::ifstream in("/proc/sys/kernel/pid_max");
    int value = 4194304;
    in >> value;
    return value;
}

std::string logText(const testsupport::LogCapture& log) {
    std::string text;
    for (const auto& line : log.records()) {
        text += line.text + "\n";
    }
    return text;
}

size_t count(const std::string& text, const std::string& what) {
    size_t found = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++found;
    }
    return found;
}

}  // namespace

TEST(ProcessOwnership, PidTextsAboveOneOnlyAndNeverAnotherProcess) {
    struct Case {
        const char* text;
        bool valid;
    };
    for (const Case& c : std::vector<Case>{{"0", false},
                                           {"1", false},
                                           {"2", true},
                                           {"-1", false},
                                           {"+5", false},
                                           {" 5", false},
                                           {"5 ", false},
                                           {"", false},
                                           {"2147483647", true},
                                           {"2147483648", false},
                                           {"12345678901", false},
                                           {"0x10", false}}) {
        int pid = -7;
        EXPECT_EQ(c.valid, datacenter::ProcessOwnership::sParsePid(c.text, pid)) << c.text;
    }
    // Pid 1 (init) and our own process are never the plugin's, whatever its directory.
    testsupport::putPlugin("own", datacenter::ENABLED);
    for (const int pid : {0, 1, static_cast<int>(getpid())}) {
        std::string reason;
        EXPECT_FALSE(datacenter::ProcessOwnership::sBelongsTo(pid, PluginManager::sGetPluginDataPath("own"), reason))
            << pid;
        EXPECT_FALSE(reason.empty()) << pid;
    }
}

// Pid entries planted in the pid file: only the plugin's own processes are
// signalled (SIGTERM, then SIGKILL for those that stay), every other entry is
// skipped with a log line, and at most 64 entries are looked at per call.
TEST(PlantedPids, OnlyThePluginsOwnProcessesAreStopped) {
    PluginManager* manager = Singleton<PluginManager>::instance();
    testsupport::putPlugin("p", datacenter::ENABLED);
    testsupport::putPlugin("other", datacenter::ENABLED);
    const std::string own = PluginManager::sGetPluginDataPath("p");
    struct Case {
        const char* name;
        int ownPolite;    // expected death signal of a polite own process, -1: not listed
        int ownStubborn;  // same for one that ignores SIGTERM
        std::function<std::string(const std::string& polite, const std::string& stubborn, const std::string& foreign,
                                  const std::string& neighbour, const std::string& zombie)>
            entries;
        const char* logged;  // a log text the case must show
    };
    const int overMax = pidMax() + 1;
    const std::vector<Case> cases{
        {"own processes", SIGTERM, SIGKILL,
         [](const std::string& p, const std::string& s, const std::string&, const std::string&, const std::string&) {
             return p + ";;abc;" + s;
         },
         "kill result is 0"},
        {"someone else's and another plugin's", -1, -1,
         [](const std::string&, const std::string&, const std::string& f, const std::string& n, const std::string&) {
             return f + ";" + n;
         },
         "neither its root, working directory nor program lies in"},
        {"signs, blanks, 0 and 1 around an own pid", 0, -1,
         [](const std::string& p, const std::string&, const std::string&, const std::string&, const std::string&) {
             return "+" + p + ";-" + p + "; " + p + ";" + p + " ;0;1;-1";
         },
         "skip pid '1' of plugin p: not a process id above 1"},
        {"a zombie listed 500 times", -1, -1,
         [](const std::string&, const std::string&, const std::string&, const std::string&, const std::string& z) {
             std::string text;
             for (int i = 0; i < 500; ++i) {
                 text += z + ";";
             }
             return text;
         },
         "the process has ended (zombie)"},
        {"an own pid behind 64 stale ones", 0, -1,
         [overMax](const std::string& p, const std::string&, const std::string&, const std::string&,
                   const std::string&) {
             std::string text;
             for (int i = 0; i < 64; ++i) {
                 text += std::to_string(overMax + i) + ";";
             }
             return text + p;
         },
         "lists more than 64 process ids; the rest are skipped"},
    };
    for (const Case& c : cases) {
        SleepingChild polite(false, own);
        SleepingChild stubborn(true, own);
        SleepingChild foreign;
        SleepingChild neighbour(false, PluginManager::sGetPluginDataPath("other"));
        Zombie zombie;
        ASSERT_TRUE(zombie.isZombie()) << c.name;
        datacenter::ConfigInfo::sGetInstance()->setConfigToFile(
            PluginManager::sGetPluginPidConfig(), "pid_of_p",
            c.entries(std::to_string(polite.pid()), std::to_string(stubborn.pid()), std::to_string(foreign.pid()),
                      std::to_string(neighbour.pid()), std::to_string(zombie.pid())));
        testsupport::LogCapture log;
        std::unique_ptr<AbsPlugin> plugin(manager->createPlugin("p"));
        plugin->killProcesses();
        const std::string text = logText(log);
        EXPECT_NE(std::string::npos, text.find(c.logged)) << c.name << "\n" << text;
        EXPECT_LE(count(text, "skip pid"), 64u) << c.name;
        if (c.ownPolite > 0) {
            EXPECT_EQ(c.ownPolite, polite.deathSignal()) << c.name;
        } else {
            EXPECT_EQ(0, kill(polite.pid(), 0)) << c.name;
        }
        if (c.ownStubborn > 0) {
            EXPECT_EQ(c.ownStubborn, stubborn.deathSignal()) << c.name;
        } else {
            EXPECT_EQ(0, kill(stubborn.pid(), 0)) << c.name;
        }
        // Nothing outside the plugin was touched.
        EXPECT_EQ(0, kill(foreign.pid(), 0)) << c.name;
        EXPECT_EQ(0, kill(neighbour.pid(), 0)) << c.name;
        EXPECT_EQ("", datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(PluginManager::sGetPluginPidConfig(),
                                                                                "pid_of_p"))
            << c.name;
    }
}
