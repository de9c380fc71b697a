#include "support/PluginStopCases.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <csignal>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/LogCapture.h"
#include "support/PackageFactory.h"
#include "support/SleepingChild.h"
#include "support/TestSupport.h"
#include "system/ProcessOwnership.h"

namespace testsupport {
namespace {

const std::string kId = "5017400000000000700";

std::string dataDir() {
    return PluginManager::sGetPluginDataPath(kId);
}

std::string tool(const std::string& name, const std::string& args) {
    const CommandResult result = runApp(name, args, true);
    return std::to_string(result.exitStatus) + " " + result.output;
}

// A package of the daemon program at `version`, with extra files.
std::string daemonPackage(PackageFactory& factory, const std::string& version,
                          const std::map<std::string, std::string>& extra = {}) {
    PackageSpec spec;
    spec.id = kId;
    spec.manifest["version"] = version;
    spec.manifest["binary_name"] = "bin/app";
    spec.files = {{"bin/app", readFile(DC_DAEMON_PLUGIN)}};
    spec.files.insert(extra.begin(), extra.end());
    return factory.build(spec, "daemon-" + version + std::to_string(extra.size()));
}

// The daemon's pid once it runs (it writes "daemon.pid"), 0 when it never came.
int runningDaemon() {
    waitUntil([] { return exists(dataDir() + "daemon.pid"); });
    int pid = 0;
    std::ifstream(dataDir() + "daemon.pid") >> pid;
    boost::filesystem::remove(dataDir() + "daemon.pid");
    return pid;
}

bool alive(int pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const size_t close = text.rfind(')');
    return close != std::string::npos && text.compare(close, 3, ") Z") != 0;
}

// Mount points below the plugin's directory that only a capability brings:
// /proc, /dev and the cache folder (the host's libraries are always bound).
size_t capabilityMounts() {
    const std::string dir = boost::filesystem::canonical(dataDir()).string() + "/";
    size_t count = 0;
    std::istringstream table(readFile("/proc/self/mountinfo"));
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, source, point;
        fields >> id >> parent >> device >> source >> point;
        if (point.compare(0, dir.size(), dir) == 0) {
            const std::string inside = point.substr(dir.size());
            count += inside == "proc" || inside == "dev" || inside == "cache_dir";
        }
    }
    return count;
}

std::string recorded() {
    return readFile(PluginStorageManager::sGetManifestRootPath() + kId + ".manifest");
}

// Installs version 1 and checks that its daemon runs.
void installRunning(PackageFactory& factory, const std::map<std::string, std::string>& extra = {}) {
    boost::filesystem::remove(dataDir() + "daemon.pid");
    ASSERT_NE(std::string::npos,
              tool("installplugin", "-f " + daemonPackage(factory, "1.0.0", extra)).find("installplugin succeed!"));
    const int daemon = runningDaemon();
    ASSERT_GT(daemon, 0);
    ASSERT_TRUE(alive(daemon));
}

void expectNothingOfThePluginRuns(const std::string& when) {
    EXPECT_TRUE(datacenter::ProcessOwnership::sFind(dataDir()).empty()) << when;
}

}  // namespace

void runPluginStopCases() {
    PackageFactory factory;
    struct Case {
        const char* name;
        std::function<void()> run;
    };
    const std::vector<Case> cases{
        {"a daemon that ignores SIGTERM survives neither disable nor uninstall",
         [&] {
             installRunning(factory);
             EXPECT_EQ(0u, tool("plugincenter", "disable " + kId).find("0 "));
             expectNothingOfThePluginRuns("after disable");
             EXPECT_EQ(0u, tool("plugincenter", "enable " + kId).find("0 "));
             const int daemon = runningDaemon();
             EXPECT_TRUE(alive(daemon));
             EXPECT_EQ(0u, tool("plugincenter", "uninstall " + kId).find("0 "));
             EXPECT_FALSE(alive(daemon));
             expectNothingOfThePluginRuns("after uninstall");
         }},
        {"the old version's daemon forges etc/manifest right after the new one is unpacked",
         [&] {
             installRunning(factory, {{"forge-on-upgrade", "1"}});
             const std::string outcome = tool("installplugin", "-f " + daemonPackage(factory, "2.0.0"));
             EXPECT_NE(std::string::npos, outcome.find("installplugin succeed!")) << outcome;
             EXPECT_NE(std::string::npos, recorded().find("2.0.0"));
             EXPECT_EQ(std::string::npos, recorded().find("access_")) << recorded();
             EXPECT_EQ(std::string::npos, readFile(dataDir() + "etc/manifest").find("FORGED"));
             EXPECT_EQ(0u, capabilityMounts());
             EXPECT_EQ(0u, tool("plugincenter", "uninstall " + kId).find("0 "));
         }},
        {"another process rewrites etc/manifest throughout an upgrade",
         [&] {
             installRunning(factory);
             std::atomic<bool> stop{false};
             std::thread writer([&] {
                 const std::string forged = "plugin_id = \"" + kId +
                                            "\";\nversion = \"2.0.0\";\nsupported_rom = \"netvale_rom\";\n"
                                            "binary_name = \"bin/app\";\ncapability_list = [\"access_proc\"];\n";
                 while (!stop) {
                     std::ofstream(dataDir() + "etc/manifest.w") << forged;
                     std::rename((dataDir() + "etc/manifest.w").c_str(), (dataDir() + "etc/manifest").c_str());
                 }
             });
             const std::string outcome = tool("installplugin", "-f " + daemonPackage(factory, "2.0.0"));
             stop = true;
             writer.join();
             EXPECT_NE(std::string::npos, outcome.find("installplugin succeed!")) << outcome;
             EXPECT_EQ(std::string::npos, recorded().find("access_proc")) << recorded();
             EXPECT_EQ(0u, capabilityMounts());
             EXPECT_EQ(0u, tool("plugincenter", "uninstall " + kId).find("0 "));
         }},
        {"a stop that cannot finish reports failure",
         [&] {
             installRunning(factory);
             datacenter::ProcessOwnership::sPretendUnkillable(true);
             LogCapture log;
             PluginManager* manager = Singleton<PluginManager>::instance();
             EXPECT_EQ(API_GENERAL_FAILURE, manager->changePluginStatus(kId, datacenter::DISABLED));
             EXPECT_EQ(API_GENERAL_FAILURE, manager->uninstallPlugin(kId));
             EXPECT_TRUE(log.contains("could not be stopped"));
             EXPECT_TRUE(exists(PluginStorageManager::sGetManifestRootPath() + kId + ".manifest"));
             datacenter::ProcessOwnership::sPretendUnkillable(false);
             EXPECT_EQ(API_SUCCESS, manager->uninstallPlugin(kId));
             expectNothingOfThePluginRuns("after the second uninstall");
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.run();
        expectNothingOfThePluginRuns(c.name);
        EXPECT_FALSE(exists(PluginStorageManager::sGetManifestRootPath() + kId + ".manifest"));
    }
}

}  // namespace testsupport
