// What a plugin or a local user can write, planted where the root-run core
// looks next: pids in the world-writable pid file, a journal and a held lock,
// edited capabilities, an "@include" or links in the manifest store, a linked
// migration folder, an RPC server that trickles, line breaks, terminal
// escapes and invalid UTF-8 in a plugin's texts. Each case checks what the
// core did and that nothing outside the plugin changed.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "Plugin/PluginManager.h"
#include "Plugin/TimeMachineMigration.h"
#include "common/Singleton.h"
#include "rpc/DataCenterRpcServer.h"
#include "storage/PrivateState.h"
#include "support/ChildServer.h"
#include "support/Golden.h"
#include "support/LockHolder.h"
#include "support/PackageFactory.h"
#include "support/SilentListener.h"
#include "support/SleepingChild.h"
#include "support/TestSupport.h"
#include "system/ConfigInfo.h"
#include "system/ProcessOwnership.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::readFile;
using testsupport::SleepingChild;
using testsupport::writeFile;

namespace {

// A child that has ended and is not reaped until the object goes: a zombie.
class Zombie {
public:
    Zombie() {
        pid_ = fork();
        if (pid_ == 0) {
            _exit(0);
        }
        testsupport::waitUntil([this] { return isZombie(); });
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
// Own processes the file does not list are found through /proc and end too.
TEST(PlantedPids, OnlyThePluginsOwnProcessesAreStopped) {
    PluginManager* manager = Singleton<PluginManager>::instance();
    testsupport::putPlugin("p", datacenter::ENABLED);
    testsupport::putPlugin("other", datacenter::ENABLED);
    const std::string own = PluginManager::sGetPluginDataPath("p");
    struct Case {
        const char* name;
        std::function<std::string(const std::string& polite, const std::string& stubborn, const std::string& foreign,
                                  const std::string& neighbour, const std::string& zombie)>
            entries;
        const char* logged;  // a log text the case must show
    };
    const int overMax = pidMax() + 1;
    const std::vector<Case> cases{
        {"own processes",
         [](const std::string& p, const std::string& s, const std::string&, const std::string&, const std::string&) {
             return p + ";;abc;" + s;
         },
         "kill result is 0"},
        {"someone else's and another plugin's",
         [](const std::string&, const std::string&, const std::string& f, const std::string& n, const std::string&) {
             return f + ";" + n;
         },
         "neither its root, working directory nor program lies in"},
        {"signs, blanks, 0 and 1 around an own pid",
         [](const std::string& p, const std::string&, const std::string&, const std::string&, const std::string&) {
             return "+" + p + ";-" + p + "; " + p + ";" + p + " ;0;1;-1";
         },
         "skip pid '1' of plugin p: not a process id above 1"},
        {"a zombie listed 500 times",
         [](const std::string&, const std::string&, const std::string&, const std::string&, const std::string& z) {
             std::string text;
             for (int i = 0; i < 500; ++i) {
                 text += z + ";";
             }
             return text;
         },
         "the process has ended (zombie)"},
        {"an own pid behind 64 stale ones",
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
        EXPECT_TRUE(plugin->killProcesses()) << c.name;
        const std::string text = testsupport::logText(log);
        EXPECT_NE(std::string::npos, text.find(c.logged)) << c.name << "\n" << text;
        EXPECT_LE(count(text, "skip pid"), 64u) << c.name;
        EXPECT_EQ(SIGTERM, polite.deathSignal()) << c.name;
        EXPECT_EQ(SIGKILL, stubborn.deathSignal()) << c.name;
        // Nothing outside the plugin was touched.
        EXPECT_EQ(0, kill(foreign.pid(), 0)) << c.name;
        EXPECT_EQ(0, kill(neighbour.pid(), 0)) << c.name;
        EXPECT_EQ("", datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(PluginManager::sGetPluginPidConfig(),
                                                                                "pid_of_p"))
            << c.name;
    }
}

namespace {

const std::string kPlugin = "5017400000000000100";
const std::string kNeighbour = "5017400000000000111";
const std::string kHostile = "5017400000000000122";

std::string appdata() {
    return PluginManager::sGetPluginRootPath();
}
std::string store() {
    return appdata() + "app_infos/";
}
std::string outside() {
    return testsupport::underRoot("/outside");
}

// What no case may change: the files outside the plugin root, the
// neighbour's tree and its record.
std::string outsideSnapshot() {
    return testsupport::treeText(outside()) + "--\n" +
           testsupport::treeText(PluginManager::sGetPluginDataPath(kNeighbour)) + "--\n" +
           testsupport::readFile(store() + kNeighbour + ".manifest");
}

std::string tool(const std::string& name, const std::string& args) {
    const testsupport::CommandResult result = testsupport::runApp(name, args, true);
    return std::to_string(result.exitStatus) + " " + result.output;
}

std::string noSlash(const std::string& path) {
    return path.substr(0, path.find_last_not_of('/') + 1);
}

// The time machine recorded at a version whose installation migrates its data.
void prepareTimeMachine() {
    const std::string id = TimeMachineInfo::getPluginId();
    testsupport::putPlugin(id, datacenter::ENABLED);
    datacenter::ConfigInfo::sGetInstance()->setConfigToFile(testsupport::storeManifest(id), "version", "1.3.0");
    testsupport::putPlugin(id, datacenter::ENABLED);
    boost::filesystem::create_directories(PluginManager::sGetPluginDataPath(id) + "userdisk");
    boost::filesystem::create_directories(testsupport::underRoot("/userdisk/data"));
}

void undoTimeMachine() {
    boost::filesystem::remove_all(PluginManager::sGetPluginDataPath(TimeMachineInfo::getPluginId()) + "userdisk");
    boost::filesystem::remove_all(noSlash(timecapsuleNewdir()));
}

// A plugin RPC server that answers one byte at a time, each just inside
// the per-phase time-out, for as long as the client listens.
class TricklingServer {
public:
    TricklingServer() : listener_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            ::listen(listener_, 4) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return;
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~TricklingServer() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        ::close(listener_);
    }
    int port() const { return port_; }

private:
    void serve() {
        pollfd wait{listener_, POLLIN, 0};
        while (!stop_ && ::poll(&wait, 1, 100) <= 0) {
        }
        if (stop_) {
            return;
        }
        const int peer = ::accept(listener_, nullptr, nullptr);
        const unsigned char header[4] = {0, 0x10, 0, 0};  // a frame of 1 MiB
        bool open = ::send(peer, header, sizeof(header), MSG_NOSIGNAL) == 4;
        while (!stop_ && open) {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            open = ::send(peer, "x", 1, MSG_NOSIGNAL) == 1;
        }
        ::close(peer);
    }

    int listener_;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Installs a package of `id` with the manifest settings `settings`.
std::string installWith(PackageFactory& factory, const std::string& id,
                        const std::map<std::string, std::string>& settings) {
    PackageSpec spec;
    spec.id = id;
    for (const auto& setting : settings) {
        spec.manifest[setting.first] = setting.second;
    }
    return tool("installplugin",
                "-f " + factory.build(
                            spec, "input-" + std::to_string(std::hash<std::string>()(id + settings.begin()->second))));
}

// The installer under a limit of 1 GiB of address space, which the sanitizers
// cannot run under: there the refusal is checked without the limit.
std::string installUnderMemoryLimit(const std::string& package) {
#if defined(__SANITIZE_ADDRESS__)
    const std::string limit;
#else
    const std::string limit = "ulimit -v 1048576 && ";
#endif
    const testsupport::CommandResult result = testsupport::runCommand(
        limit + "DATACENTER_INSTALLPLUGIN_DELAY_MS=0 DATACENTER_ROOT=" + testsupport::root() + " timeout 120 " +
        testsupport::buildDir() + "/apps/installplugin -k -f " + package + " 2>&1");
    return std::to_string(result.exitStatus) + " " + result.output;
}

// A plugin RPC server that answers every request with `answer`.
class AnsweringHandler : public datacenter::DataCenterRpcHandler {
public:
    explicit AnsweringHandler(const std::string& answer) : answer_(answer) {}
    std::string request(const std::string&) override { return answer_; }
    std::string notify(int32_t, const std::string&) override { return answer_; }

private:
    std::string answer_;
};

// The lines of `text`, which must hold no control character but tabs and
// line ends. Failures print the text as gtest escapes it, never raw.
std::vector<std::string> cleanLines(const std::string& text) {
    std::vector<std::string> lines(1);
    size_t controls = 0;
    for (const char byte : text) {
        controls += byte != '\n' && byte != '\t' && (static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f);
        if (byte == '\n') {
            lines.emplace_back();
        } else {
            lines.back() += byte;
        }
    }
    EXPECT_EQ(0u, controls) << testing::PrintToString(text);
    EXPECT_EQ("", lines.back()) << testing::PrintToString(text);
    lines.pop_back();
    return lines;
}

}  // namespace

// Files planted where the core looks next, each refused or contained.
TEST(PlantedState, AttacksAreRefusedAndNothingOutsideChanges) {
    PackageFactory factory;
    PackageSpec neighbour;
    neighbour.id = kNeighbour;
    ASSERT_EQ(0u, tool("installplugin", "-k -f " + factory.build(neighbour, "n")).find("0 "));
    const std::string package = factory.build(PackageSpec(), "p");
    ASSERT_NE(std::string::npos, tool("installplugin", "-k -f " + package).find("installplugin succeed!"));
    writeFile(outside() + "/secret", "plugin_id = \"leak\";\nname = \"TOPSECRET\";\n");
    writeFile(outside() + "/store/idless.manifest", "name = \"no id\";\n");
    writeFile(outside() + "/store/hasUpdated", "t");
    boost::filesystem::create_directories(testsupport::underRoot("/fifo"));
    ASSERT_EQ(0, mkfifo(testsupport::underRoot("/fifo/pipe").c_str(), 0600));
    const std::string manifest = PluginManager::sGetPluginManifestPath(kPlugin);

    struct Case {
        const char* name;
        std::function<void()> plant;
        std::function<std::string()> act;
        std::function<void(const std::string& outcome)> check;
        std::function<void()> undo;
    };
    const auto list = [] { return tool("plugincenter", "list --json"); };
    const auto listsBoth = [](const std::string& outcome) {
        EXPECT_EQ(0u, outcome.find("0 ")) << outcome;
        EXPECT_NE(std::string::npos, outcome.find(kNeighbour)) << outcome;
        EXPECT_NE(std::string::npos, outcome.find(kPlugin)) << outcome;
        EXPECT_EQ(std::string::npos, outcome.find("TOPSECRET")) << outcome;
    };
    const auto nothing = [] {};
    std::unique_ptr<testsupport::LockHolder> holder;
    std::unique_ptr<testsupport::ChildServer> trickler;
    std::unique_ptr<testsupport::SilentListener> foreign;
    std::unique_ptr<testsupport::ChildServer> answering;
    std::map<std::string, std::string> printed;  // by verb
    const std::string kAnswer =
        "answer\n\x1b[2J\xc2\x9b"
        "1A\\";
    writeFile(outside() + "/tc/backup", "someone's file");
    writeFile(outside() + "/afp/share/file", "someone's share");
    const auto migrate = [] {
        Singleton<PluginManager>::instance()->moveTimeMachineData(TimeMachineInfo::getPluginId());
        return std::string();
    };
    const std::string record = PluginManager::sGetPluginDataPath(kPlugin) + "init_files.record";
    const std::string configFolder = testsupport::underRoot("/userdisk/datacenterConfig");
    const std::vector<Case> cases{
        {"packages named after the core's own entries, in any case", nothing,
         [&] {
             std::string outcomes;
             for (const char* id : {"app_infos", "Local_Install_Tmp", "app_package", "plugin_id_info.cfg", ".hidden"}) {
                 outcomes += installWith(factory, id, {{"name", id}}) + "\n";
             }
             return outcomes + tool("plugincenter", "uninstall app_infos") + tool("plugincenter", "list --json");
         },
         [&](const std::string& outcome) {
             EXPECT_EQ(5u, count(outcome, "\ninstallplugin failed. code is 2504")) << outcome;
             EXPECT_EQ(0u, count(outcome, "\ninstallplugin succeed!")) << outcome;
             EXPECT_NE(std::string::npos, outcome.find(kNeighbour)) << outcome;
             EXPECT_FALSE(testsupport::exists(store() + "manifest"));
             EXPECT_FALSE(testsupport::exists(appdata() + "Local_Install_Tmp"));
         },
         nothing},
        {"packages with numbers that do not convert", nothing,
         [&] {
             return installWith(factory, "5017400000000000120", {{"use_status", "x"}}) +
                    installWith(factory, "5017400000000000121", {{"use_status", "99999999999"}}) +
                    installWith(factory, "5017400000000000122", {{"sdk_level", " 1"}}) + "\n--\n" + list();
         },
         [&](const std::string& outcome) {
             EXPECT_EQ(2u, count(outcome, "\ninstallplugin failed. code is 2529")) << outcome;
             EXPECT_EQ(1u, count(outcome, "\ninstallplugin failed. code is 2513")) << outcome;
             const std::string listing = outcome.substr(outcome.find("\n--\n") + 4);
             listsBoth(listing);
             EXPECT_EQ(std::string::npos, listing.find("501740000000000012")) << listing;
         },
         nothing},
        {"a store record with a number out of range",
         [] {
             writeFile(store() + "5017400000000000123.manifest",
                       "plugin_id = \"5017400000000000123\";\nstatus = \"5\";\nuse_status = \"99999999999\";\n");
         },
         [&] { return list() + tool("plugincenter", "info 5017400000000000123"); },
         [&](const std::string& outcome) {
             listsBoth(outcome);
             EXPECT_EQ(std::string::npos, outcome.find("\"5017400000000000123\"")) << outcome;
         },
         [] { boost::filesystem::remove(store() + "5017400000000000123.manifest"); }},
        {"an 8 GB sparse file record on upgrade, under a memory limit",
         [&] { ASSERT_EQ(0, truncate(record.c_str(), 8LL << 30)); },
         [&] { return installUnderMemoryLimit(package) + list(); },
         [&](const std::string& outcome) {
             EXPECT_EQ(0u, outcome.find("0 ")) << outcome;
             EXPECT_NE(std::string::npos, outcome.find("installplugin failed. code is 4")) << outcome;
             EXPECT_NE(std::string::npos, outcome.find(kPlugin)) << outcome;
             EXPECT_FALSE(testsupport::exists(datacenter::PrivateState::sPath("install.journal")));
             EXPECT_EQ(8LL << 30, static_cast<long long>(boost::filesystem::file_size(record)));
         },
         [&] {
             ASSERT_EQ(0, truncate(record.c_str(), 0));
             tool("plugincenter", "enable " + kPlugin);
         }},
        {"a plugin holds the lock of its configuration file",
         [&] {
             holder.reset(
                 new testsupport::LockHolder(PluginManager::sGetPluginDataPath(kPlugin) + "etc/plugin_config"));
             ASSERT_TRUE(holder->held());
         },
         [] { return tool("plugincenter", "config get " + kPlugin + " colour"); },
         [](const std::string& outcome) {
             EXPECT_EQ(0u, outcome.find("1 ")) << outcome;
             EXPECT_NE(std::string::npos, outcome.find("2518")) << outcome;
         },
         [&] { holder.reset(); }},
        {"a link in place of the configuration folder",
         [&] {
             writeFile(outside() + "/cfg/DataBase/kept", "someone's database");
             writeFile(outside() + "/cfg/config.cfg", "not { a valid = file");
             boost::filesystem::rename(configFolder, configFolder + ".real");
             boost::filesystem::create_directory_symlink(outside() + "/cfg", configFolder);
         },
         [&] { return list() + tool("plugincenter", "control " + kPlugin + " ping"); },
         [&](const std::string& outcome) {
             EXPECT_EQ(0u, outcome.find("0 ")) << outcome;
             EXPECT_EQ("someone's database", readFile(outside() + "/cfg/DataBase/kept"));
             EXPECT_EQ("not { a valid = file", readFile(outside() + "/cfg/config.cfg"));
         },
         [&] {
             boost::filesystem::remove(configFolder);
             boost::filesystem::rename(configFolder + ".real", configFolder);
             boost::filesystem::remove_all(outside() + "/cfg");
         }},
        {"a journal planted on the user disk names the neighbour as a fresh install",
         [] {
             writeFile(appdata() + ".install.journal",
                       "id " + kNeighbour + "\nupgrade 0\nfresh_tree 1\nstaged " + store() + "\n");
         },
         list, listsBoth, [] { boost::filesystem::remove(appdata() + ".install.journal"); }},
        {"a plugin holds the old lock file",
         [&] {
             holder.reset(new testsupport::LockHolder(appdata() + ".install.lock"));
             ASSERT_TRUE(holder->held());
         },
         [&] { return tool("installplugin", "-k -f " + package); },
         [](const std::string& outcome) {
             EXPECT_NE(std::string::npos, outcome.find("installplugin succeed!")) << outcome;
         },
         [&] { holder.reset(); }},
        {"a plugin writes a capability into its own manifest",
         [&] {
             const std::string text = readFile(manifest);
             writeFile(manifest,
                       text.substr(0, text.find("capability_list")) + "capability_list = [\"access_userdata\"];\n");
         },
         [] {
             const std::string disabled = tool("plugincenter", "disable " + kPlugin);
             return disabled + tool("plugincenter", "enable " + kPlugin);
         },
         [&](const std::string& outcome) {
             EXPECT_EQ(0u, outcome.find("0 ")) << outcome;
             EXPECT_EQ(std::string::npos, readFile(manifest).find("access_userdata")) << outcome;
             EXPECT_NE(std::string::npos, readFile(manifest).find("plugin_id")) << readFile(manifest);
         },
         nothing},
        {"a store manifest includes a root-only file",
         [] { writeFile(store() + "evil.manifest", "@include \"" + outside() + "/secret\"\n"); }, list,
         [&](const std::string& outcome) {
             listsBoth(outcome);
             EXPECT_TRUE(testsupport::exists(store() + "evil.manifest"));
         },
         [] { boost::filesystem::remove(store() + "evil.manifest"); }},
        {"a store manifest includes a FIFO",
         [] { writeFile(store() + "evil.manifest", "@include \"" + testsupport::underRoot("/fifo/pipe") + "\"\n"); },
         list, listsBoth, [] { boost::filesystem::remove(store() + "evil.manifest"); }},
        {"a package's name and version and a plugin's value and answer carry line breaks, escapes and bad UTF-8",
         [&] {
             PackageSpec spec;
             spec.id = kHostile;
             // libconfig's escapes in the manifest, then raw bytes that are no UTF-8.
             spec.manifest["name"] = "Evil\\n5017400000000000999\\t5\\t9.9.9\\tFake\\x1b]0;owned\\x07\\x1b[1A\xff";
             spec.manifest["version"] = "6.6\\t\xc3\x28\\r";
             ASSERT_NE(std::string::npos,
                       tool("installplugin", "-k -f " + factory.build(spec, "hostile")).find("installplugin succeed!"));
             writeFile(PluginManager::sGetPluginDataPath(kHostile) + "etc/plugin_config",
                       "keymode = \"on\\n\\x1b]0;owned\\x07\xfe\";\n");
             answering.reset(new testsupport::ChildServer(PluginManager::sGetPluginDataPath(kHostile), [&] {
                 auto* server = new datacenter::DataCenterRpcServer(std::make_shared<AnsweringHandler>(kAnswer));
                 std::string error;
                 return server->start(0, error) ? server->port() : 0;
             }));
             ASSERT_GT(answering->port(), 0);
             PluginManager::sSetPluginPort(kHostile, std::to_string(answering->port()), datacenter::PORT);
         },
         [&] {
             // Standard output only: the warnings on standard error are the core's own text.
             const auto printedBy = [](const std::string& args) {
                 const testsupport::CommandResult result = testsupport::runApp("plugincenter", args);
                 return std::to_string(result.exitStatus) + " " + result.output;
             };
             printed["list"] = printedBy("list");
             printed["info"] = printedBy("info " + kHostile);
             printed["config"] = printedBy("config get " + kHostile + " mode");
             printed["control"] = printedBy("control " + kHostile + " ping");
             return testsupport::runApp("plugincenter", "list --json").output;
         },
         [&](const std::string& json) {
             // One line per plugin, the texts escaped.
             const std::string name =
                 "Evil\\x0a5017400000000000999\\x095\\x099.9.9\\x09Fake\\x1b]0;owned\\x07\\x1b[1A\\xff";
             const std::string version = "6.6\\x09\\xc3(\\x0d";
             EXPECT_EQ("0 " + kPlugin + "\t5\t1.0.0\tHello\n" + kNeighbour + "\t5\t1.0.0\tHello\n" + kHostile +
                           "\t5\t" + version + "\t" + name + "\n",
                       printed["list"]);
             cleanLines(printed["list"]);
             const std::vector<std::string> info = cleanLines(printed["info"]);
             EXPECT_EQ(7u, info.size()) << testing::PrintToString(printed["info"]);
             if (info.size() == 7u) {
                 EXPECT_EQ("0 id: " + kHostile, info[0]);
                 EXPECT_EQ("name: " + name, info[1]);
                 EXPECT_EQ("version: " + version, info[2]);
             }
             EXPECT_EQ("0 on\\x0a\\x1b]0;owned\\x07\\xfe\n", printed["config"]);
             EXPECT_EQ("0 answer\\x0a\\x1b[2J\\xc2\\x9b1A\\\\\n", printed["control"]);
             // Valid UTF-8 JSON for every plugin; the bad bytes replaced.
             json_tokener* tokener = json_tokener_new();
             json_tokener_set_flags(tokener, JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
             json_object* list = json_tokener_parse_ex(tokener, json.c_str(), static_cast<int>(json.size()));
             json_tokener_free(tokener);
             ASSERT_NE(nullptr, list) << testing::PrintToString(json);
             ASSERT_EQ(3u, json_object_array_length(list));
             json_object* named = nullptr;
             EXPECT_TRUE(json_object_object_get_ex(json_object_array_get_idx(list, 2), "name", &named));
             EXPECT_STREQ("Evil\n5017400000000000999\t5\t9.9.9\tFake\x1b]0;owned\x07\x1b[1A\xef\xbf\xbd",
                          json_object_get_string(named));
             json_object_put(list);
             // What the library holds stays as the package said.
             datacenter::PluginInfo record;
             Singleton<PluginManager>::instance()->getPluginById(record, kHostile);
             EXPECT_EQ("6.6\t\xc3\x28\r", record.version);
         },
         [&] {
             answering.reset();
             EXPECT_EQ(0u, tool("plugincenter", "uninstall " + kHostile).find("0 "));
         }},
        {"a link in place of a manifest and of the mark file",
         [] {
             boost::filesystem::create_symlink(outside() + "/secret", store() + "leak.manifest");
             boost::filesystem::remove(store() + "hasUpdated");
             boost::filesystem::create_symlink(outside() + "/secret", store() + "hasUpdated");
         },
         list,
         [&](const std::string& outcome) {
             listsBoth(outcome);
             EXPECT_TRUE(boost::filesystem::is_symlink(store() + "leak.manifest"));
             EXPECT_TRUE(boost::filesystem::is_symlink(store() + "hasUpdated"));
         },
         [] {
             boost::filesystem::remove(store() + "leak.manifest");
             boost::filesystem::remove(store() + "hasUpdated");
         }},
        {"a link in place of the store",
         [] {
             boost::filesystem::rename(store(), appdata() + "store.real");
             boost::filesystem::create_directory_symlink(outside() + "/store", appdata() + "app_infos");
         },
         list,
         [](const std::string& outcome) {
             EXPECT_EQ(0u, outcome.find("0 ")) << outcome;
             EXPECT_EQ(std::string::npos, outcome.find("no id")) << outcome;
         },
         [] {
             boost::filesystem::remove(appdata() + "app_infos");
             boost::filesystem::rename(appdata() + "store.real", appdata() + "app_infos");
         }},
        {"the plugin's RPC server trickles its answer",
         [&] {
             trickler.reset(new testsupport::ChildServer(PluginManager::sGetPluginDataPath(kPlugin),
                                                         [] { return (new TricklingServer)->port(); }));
             ASSERT_GT(trickler->port(), 0);
             PluginManager::sSetPluginPort(kPlugin, std::to_string(trickler->port()), datacenter::PORT);
         },
         [] { return tool("plugincenter", "control " + kPlugin + " ping"); },
         [](const std::string& outcome) {
             EXPECT_EQ(0u, outcome.find("1 ")) << outcome;
             EXPECT_NE(std::string::npos, outcome.find("1055")) << outcome;
         },
         [&] { trickler.reset(); }},
        {"another plugin's process listens on the plugin's recorded port",
         [&] {
             foreign.reset(new testsupport::SilentListener);
             PluginManager::sSetPluginPort(kPlugin, std::to_string(foreign->port()), datacenter::PORT);
         },
         [] { return tool("plugincenter", "control " + kPlugin + " ping"); },
         [&](const std::string& outcome) {
             EXPECT_EQ(0u, outcome.find("1 ")) << outcome;
             EXPECT_NE(std::string::npos, outcome.find("2502")) << outcome;
             EXPECT_NE(std::string::npos, outcome.find("is held by a process that is not the plugin's")) << outcome;
             EXPECT_FALSE(foreign->connected());
         },
         [&] { foreign.reset(); }},
        {"the old time machine planted links in its tree",
         [] {
             prepareTimeMachine();
             boost::filesystem::create_directory_symlink(outside() + "/tc", noSlash(timecapsuleOlddir()));
             boost::filesystem::create_directory_symlink(outside() + "/afp", noSlash(afpOlddir()));
         },
         migrate,
         [](const std::string&) {
             EXPECT_FALSE(testsupport::exists(timecapsuleNewdir() + "backup"));
             EXPECT_FALSE(testsupport::exists(afpNewdir() + "share"));
             EXPECT_TRUE(boost::filesystem::is_symlink(noSlash(afpOlddir())));
         },
         undoTimeMachine},
        {"the backup folder on the user disk is a link",
         [] {
             prepareTimeMachine();
             writeFile(timecapsuleOlddir() + "backup", "old backup");
             writeFile(afpOlddir() + "share/file", "old afp");
             boost::filesystem::create_directory_symlink(outside() + "/tc", noSlash(timecapsuleNewdir()));
         },
         migrate,
         [](const std::string&) {
             EXPECT_EQ("old backup", readFile(timecapsuleOlddir() + "backup"));
             EXPECT_EQ("old afp", readFile(afpOlddir() + "share/file"));
         },
         undoTimeMachine},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string before = outsideSnapshot();
        c.plant();
        c.check(c.act());
        c.undo();
        EXPECT_EQ(before, outsideSnapshot());
    }
}
