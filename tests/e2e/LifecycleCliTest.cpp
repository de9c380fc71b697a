// The lifecycle through the operator's command line: plugincenter's verbs
// and exit statuses, install progress after a failure, and the plugin
// controller stand-in starting a binary below the plugin's directory.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <regex>

#include "Plugin/FirmwareRecheck.h"
#include "Plugin/PluginManager.h"
#include "Plugin/installAction/InstallJournal.h"
#include "common/Singleton.h"
#include "support/Golden.h"
#include "support/LockHolder.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::readFile;
using testsupport::runApp;
using testsupport::underRoot;

namespace {

const std::string kId = "5017400000000000100";

}  // namespace

TEST(PluginCenterCli, LifecycleVerbsAndTheirExitStatuses) {
    PackageFactory factory;
    ASSERT_EQ(0, runApp("installplugin", "-f " + factory.build(PackageSpec(), "cli")).exitStatus);
    // Standard error carries warnings and errors only, informational lines with -v.
    // glog's prefix (time, thread, source line) is cut to its severity letter.
    const auto errorsOf = [](const std::string& args) {
        const std::string text =
            testsupport::runCommand("DATACENTER_ROOT=" + testsupport::root() + " " + testsupport::buildDir() +
                                    "/apps/plugincenter " + args + " 2>&1 >/dev/null")
                .output;
        return std::regex_replace(text, std::regex("(^|\n)([IWEF])[0-9]{8} [0-9:.]+ +[0-9]+ [^\\]]+\\] "), "$1$2 ");
    };
    EXPECT_GOLDEN("lifecycle/plugincenter-list-stderr", errorsOf("list"));
    const std::string verbose = errorsOf("-v list");
    EXPECT_NE(std::string::npos, verbose.find("\nI")) << verbose;
    EXPECT_EQ(runApp("plugincenter", "list").output, runApp("plugincenter", "--verbose list").output);
    EXPECT_GOLDEN("lifecycle/plugincenter-capabilities", runApp("plugincenter", "capabilities").output);
    EXPECT_GOLDEN("lifecycle/plugincenter-capabilities-all", runApp("plugincenter", "capabilities --all").output);

    for (const char* verb : {"list", "info", "install", "install-url", "install-server", "uninstall", "clean", "enable",
                             "disable", "control", "config", "metrics", "progress", "capabilities"}) {
        const testsupport::CommandResult help = runApp("plugincenter", std::string(verb) + " --help");
        EXPECT_EQ(0, help.exitStatus) << verb;
        EXPECT_EQ(0u, help.output.rfind(std::string("usage: plugincenter ") + verb, 0)) << verb;
    }
    for (const char* bad :
         {"uninstall", "clean a b", "metrics", "metrics a --yaml", "progress", "capabilities -x", "nonsense"}) {
        EXPECT_EQ(2, runApp("plugincenter", bad).exitStatus) << bad;
    }

    const testsupport::CommandResult refused = runApp("plugincenter", "uninstall 5017400000000000008", true);
    EXPECT_EQ(1, refused.exitStatus);
    EXPECT_NE(std::string::npos, refused.output.find("uninstall 5017400000000000008 failed, code 2528"));
    EXPECT_EQ(1, runApp("plugincenter", "clean 5017400000000000199").exitStatus);

    EXPECT_GOLDEN("lifecycle/plugincenter-progress",
                  runApp("plugincenter", "progress '" + kId + ";;5017400000000000199'").output);

    const testsupport::CommandResult gone = runApp("plugincenter", "uninstall " + kId);
    EXPECT_EQ(0, gone.exitStatus);
    EXPECT_EQ("", runApp("plugincenter", "list").output);
    EXPECT_EQ(1, runApp("plugincenter", "uninstall " + kId).exitStatus);
}

TEST(InstallProgress, AFailedInstallationIsWhatThePluginReportsUntilTheNextOne) {
    PackageFactory factory;
    PackageSpec spec;
    spec.manifest["sdk_level"] = "99";
    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_EQ(API_SDK_LEVEL_TOO_LOW, manager->installFromLocal(factory.build(spec, "sdk"), false));
    std::vector<datacenter::PluginInfo> records;
    manager->getOnePlugin(records, kId);
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(API_SDK_LEVEL_TOO_LOW, records[0].errorCode);
    EXPECT_EQ(datacenter::NOT_INSTALLED, records[0].status);
    manager->getOnePlugin(records, "5017400000000000101");
    EXPECT_TRUE(records.empty());
}

TEST(PluginControllorStandIn, StartsABinaryBelowTheDataDirectoryAndRefusesOnesThatClimbOut) {
    const std::string dir = underRoot("/userdisk/appdata/") + kId + "/";
    const std::string marker = underRoot("/started");
    testsupport::writeFile(dir + "bin/app", "#!/bin/sh\necho \"$PWD\" >" + marker + "\n");
    chmod((dir + "bin/app").c_str(), 0755);
    const std::string controller = testsupport::sourceDir() + "/sim/bin/pluginControllor";
    for (const std::string name : {"bin/app", "../x", "/bin/sh", "bin/../../x"}) {
        testsupport::writeFile(dir + "etc/manifest", "binary_name = \"" + name + "\";\n");
        const int status =
            testsupport::runCommand("DATACENTER_ROOT=" + testsupport::root() + " " + controller + " -b " + kId)
                .exitStatus;
        EXPECT_EQ(name == "bin/app" ? 0 : 2, status) << name;
    }
    ASSERT_TRUE(testsupport::waitUntil([&] { return boost::filesystem::exists(marker); }));
    EXPECT_EQ(dir.substr(0, dir.size() - 1) + "\n", readFile(marker));
}

// A firmware change between two starts of the core: plugins that no longer
// fit are disabled with their reason, and started again when the firmware
// they fit comes back; what the operator disabled stays disabled.
TEST(FirmwareRecheck, AChangedFirmwareDisablesWhatNoLongerFitsAndRestoresIt) {
    PackageFactory factory;
    const std::string fussy = "5017400000000000101", stopped = "5017400000000000102";
    for (const std::string& id : {kId, fussy, stopped}) {
        PackageSpec spec;
        spec.id = id;
        if (id != kId) {
            spec.manifest["supported_rom_version"] = "2.4.10";
        }
        ASSERT_EQ(0, runApp("installplugin", "-f " + factory.build(spec, id)).exitStatus);
    }
    ASSERT_EQ(0, runApp("plugincenter", "disable " + stopped).exitStatus);
    const std::string before = runApp("plugincenter", "list").output;
    const std::string reason = "\tdisabled by the firmware check: firmware too old (2522)";
    const struct {
        std::string firmware, fussyLine;
    } steps[] = {
        // Unchanged: nothing happens.
        {"2.4.10", fussy + "\t5\t1.0.0\tHello"},
        {"2.4.9", fussy + "\t6\t1.0.0\tHello" + reason},
        {"2.4.8", fussy + "\t6\t1.0.0\tHello" + reason},
        {"2.4.11", fussy + "\t5\t1.0.0\tHello"},
    };
    for (const auto& step : steps) {
        testsupport::PackageFactory::setFirmware(step.firmware);
        const std::string listing = runApp("plugincenter", "list").output;
        EXPECT_NE(std::string::npos, listing.find(step.fussyLine + "\n")) << step.firmware << "\n" << listing;
        EXPECT_NE(std::string::npos, listing.find(stopped + "\t6\t1.0.0\tHello\n")) << step.firmware;
        EXPECT_NE(std::string::npos, listing.find(kId + "\t5\t1.0.0\tHello\n")) << step.firmware;
        const std::string info = runApp("plugincenter", "info " + fussy).output;
        EXPECT_EQ(step.fussyLine.find(reason) != std::string::npos,
                  info.find("\n" + reason.substr(1) + "\n") != std::string::npos)
            << info;
    }
    EXPECT_EQ(before, runApp("plugincenter", "list").output);
    // Disabled by the check, then by the operator: the operator's choice holds.
    testsupport::PackageFactory::setFirmware("2.4.9");
    runApp("plugincenter", "disable " + fussy);
    testsupport::PackageFactory::setFirmware("2.4.10");
    EXPECT_NE(std::string::npos, runApp("plugincenter", "list").output.find(fussy + "\t6\t1.0.0\tHello\n"));
    // On demand: one line per plugin; the operator's choice is named as such.
    runApp("plugincenter", "enable " + fussy);
    testsupport::PackageFactory::setFirmware("2.4.9");
    EXPECT_GOLDEN("lifecycle/plugincenter-recheck", runApp("plugincenter", "recheck").output);
    // The check runs under the installer's lock: while another process
    // holds it, a start leaves the check (and its records) to the next one.
    testsupport::PackageFactory::setFirmware("2.4.11");
    const std::string facts = readFile(FirmwareRecheck::sFactsPath());
    {
        testsupport::LockHolder installer(InstallJournal::sLockPath());
        ASSERT_TRUE(installer.held());
        const testsupport::CommandResult held =
            testsupport::runCommand("DATACENTER_RECHECK_LOCK_WAIT_MS=100 DATACENTER_ROOT=" + testsupport::root() + " " +
                                    testsupport::buildDir() + "/apps/plugincenter recheck");
        EXPECT_EQ("another process holds the installation lock: nothing was checked\n", held.output);
        EXPECT_EQ(facts, readFile(FirmwareRecheck::sFactsPath()));
    }
    runApp("plugincenter", "list");
    EXPECT_NE(facts, readFile(FirmwareRecheck::sFactsPath()));
}
