// Local installations through the installplugin binary, with real signed
// packages, the stand-in plugin controller on PATH and a temporary root: what
// a successful, a failed and a concurrent installation leave on disk. The
// exact output and commands of each outcome are the golden cases of
// InstallGoldenTest.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <functional>

#include "Plugin/PluginManager.h"
#include "Plugin/TimeMachineMigration.h"
#include "Plugin/installAction/InstallJournal.h"
#include "common/ApiErrorCode.h"
#include "common/Singleton.h"
#include "support/HttpTestServer.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::exists;
using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::readFile;
using testsupport::underRoot;

namespace {

const std::string kId = "5017400000000000100";

std::string dataDir(const std::string& id = kId) {
    return underRoot("/userdisk/appdata/") + id + "/";
}
std::string storeDir() {
    return underRoot("/userdisk/appdata//app_infos/");
}
std::string simLog() {
    return readFile(underRoot("/tmp/sim-commands.log"));
}
std::string install(const std::string& args) {
    return testsupport::installOutcome(testsupport::runApp("installplugin", args).output);
}

void failTheStartCommand(bool fail) {
    const std::string path = underRoot("/sim/pluginControllor/b.exit");
    if (fail) {
        testsupport::writeFile(path, "1\n");
    } else {
        boost::filesystem::remove(path);
    }
}

// The installer left a mark file that every process can open.
void expectOpenMark() {
    struct stat mark;
    ASSERT_EQ(0, stat((storeDir() + "hasUpdated").c_str(), &mark));
    EXPECT_EQ(0777u, mark.st_mode & 0777);
}

}  // namespace

TEST(InstallLocal, InstallsRecordsStartsAndMarksTheStoreUpdated) {
    PackageFactory factory;
    PackageSpec spec;
    spec.files["proc/self"] = "sandbox mount point";
    const std::string package = factory.build(spec, "hello");
    ASSERT_EQ(0u, install("-f " + package).find("installplugin succeed!"));

    // The store knows the plugin, enabled.
    EXPECT_NE(std::string::npos, readFile(storeDir() + kId + ".manifest").find("status = \"5\";"));
    expectOpenMark();

    // The plugin's files and its token.
    EXPECT_EQ("app", readFile(dataDir() + "bin/app"));
    const std::string manifest = readFile(dataDir() + "etc/manifest");
    const std::string::size_type token = manifest.find("sdk_token = \"");
    ASSERT_NE(std::string::npos, token);
    EXPECT_EQ(std::string::npos, manifest.substr(token + 13, 32).find_first_not_of("0123456789ABCDEF"));
    EXPECT_EQ('"', manifest[token + 13 + 32]);

    // The file record: the data directory first, its own path last, no sandbox mount point.
    const std::vector<std::string> record = testsupport::readLines(dataDir() + "init_files.record");
    ASSERT_GE(record.size(), 3u);
    EXPECT_EQ(dataDir(), record.front());
    EXPECT_EQ(dataDir() + "init_files.record", record.back());
    for (const std::string& line : record) {
        EXPECT_EQ(std::string::npos, line.find(dataDir() + "proc")) << line;
    }
    EXPECT_NE(record.end(), std::find(record.begin(), record.end(), dataDir() + "www/index.html"));
    // Without -k the given package is gone; nothing is left in the working directory.
    EXPECT_FALSE(exists(package));
    EXPECT_FALSE(exists(underRoot("/userdisk/appdata/local_install_tmp")));
}

TEST(InstallLocal, KeepFlagKeepsThePackageAndAReinstallKeepsTheMarkFile) {
    PackageFactory factory;
    const std::string package = factory.build(PackageSpec(), "keep");
    ASSERT_EQ(0u, install("-f " + package + " -k").find("installplugin succeed!"));
    EXPECT_TRUE(exists(package));
    testsupport::writeFile(storeDir() + "hasUpdated", "seen");

    // The installation itself reloads the store, which consumes the old mark;
    // the installer leaves a fresh one.
    EXPECT_EQ(0u, install("-k -f " + package).find("installplugin succeed!"));
    EXPECT_TRUE(exists(package));
    expectOpenMark();
}

TEST(InstallLocal, UntrustedPackagesAndShellWordsInTheIdAreRefusedBeforeAnythingRuns) {
    PackageFactory factory;
    PackageSpec untrusted;
    untrusted.signer = "untrusted";
    const std::string refused = factory.build(untrusted, "untrusted");
    EXPECT_EQ("installplugin failed. code is " + std::to_string(API_VERIFY_SIGN_FAILED) + "\n",
              install("-f " + refused + " -k"));
    EXPECT_TRUE(exists(refused));

    PackageSpec hostile;
    hostile.id = "x;touch " + testsupport::root() + "/pwned";
    EXPECT_EQ("installplugin failed. code is " + std::to_string(API_GET_PACKAGE_FAILED) + "\n",
              install("-f " + factory.build(hostile, "hostile")));
    EXPECT_FALSE(exists(testsupport::root() + "/pwned"));
    EXPECT_FALSE(exists(storeDir() + "hasUpdated"));
    EXPECT_EQ(std::string::npos, simLog().find("pluginControllor"));
}

TEST(InstallLocal, AFreshInstallFailingAtTheStartLeavesNothing) {
    PackageFactory factory;
    const std::string package = factory.build(PackageSpec(), "fresh");
    failTheStartCommand(true);

    EXPECT_EQ(0u, install("-k -f " + package).find("installplugin failed. code is "));

    EXPECT_FALSE(exists(dataDir()));
    EXPECT_FALSE(exists(storeDir() + kId + ".manifest"));
    EXPECT_FALSE(exists(underRoot("/userdisk/appdata/local_install_tmp")));
    EXPECT_FALSE(exists(InstallJournal::sJournalPath()));
    // The sandbox was unmounted before the tree went.
    EXPECT_NE(std::string::npos, simLog().find("chroot_umout.sh " + dataDir() + "\n")) << simLog();

    failTheStartCommand(false);
    EXPECT_EQ("installplugin succeed!\n", install("-k -f " + package).substr(0, 23));
}

namespace {

// Version one of a plugin that runs (its controller starts "bin/app") and a
// version two that changes one file, drops one and adds a folder.
std::pair<PackageSpec, PackageSpec> twoVersions() {
    PackageSpec v1;
    v1.manifest["binary_name"] = "bin/app";
    v1.files["data/keep.txt"] = "version one";
    v1.files["www/old.html"] = "only in one";
    PackageSpec v2 = v1;
    v2.manifest["version"] = "2.0.0";
    v2.files.erase("www/old.html");
    v2.files["data/keep.txt"] = "version two";
    v2.files["www/new/page.html"] = "only in two";
    return {v1, v2};
}

// What the plugin and its user made while version one ran; the time
// machine's installation of version 1.3 moves the last two onto the user disk.
void makeRuntimeData(const std::string& id = kId) {
    testsupport::writeFile(dataDir(id) + "userdata/notes", "runtime");
    testsupport::writeFile(dataDir(id) + "etc/plugin_config", "key = \"value\";\n");
    testsupport::writeFile(dataDir(id) + "mine.txt", "the user's");
    testsupport::writeFile(dataDir(id) + "userdisk/timecapsule/backup.img", "the user's backup");
    testsupport::writeFile(dataDir(id) + "userdisk/afp/share/file", "the user's share");
    boost::filesystem::create_directories(underRoot("/userdisk/data"));
}

}  // namespace

// An upgrade failing at any step after the installed version was stopped
// puts that version back as it was, with what it made meanwhile (the time
// machine's data its installation moved out included), and starts it
// again; the installer still reports the failure and its code. One failing
// before anything was touched (a download, the stop) leaves all of it as it
// was, the plugin never stopped.
TEST(InstallLocal, AFailedUpgradeLeavesTheInstalledVersionAsItWasAndRunning) {
    PackageFactory factory;
    const auto versions = twoVersions();
    PackageSpec untrusted = versions.second;
    untrusted.signer = "untrusted";
    PackageSpec newerFirmware = versions.second;
    newerFirmware.manifest["supported_rom_version"] = "9.0.0";
    PackageSpec refusedStart = versions.second;
    refusedStart.manifest["binary_name"] = "bin/missing";
    PackageSpec timeMachine = versions.first;
    timeMachine.id = TimeMachineInfo::getPluginId();
    timeMachine.manifest["version"] = "1.2.0";
    PackageSpec timeMachineRefused = refusedStart;
    timeMachineRefused.id = timeMachine.id;
    timeMachineRefused.manifest["version"] = "1.3.0";
    const std::string lateCrc = factory.lateCrcError(versions.second, "late-crc");
    const std::string stopFails = underRoot("/sim/pluginControllor/k.exit");
    // A folder where the store record's restored copy must be written makes
    // the rollback leave that record out.
    const std::string blocker = storeDir() + kId + ".manifest.restore";
    testsupport::HttpTestServer server;
    server.route("/missing.qpk", testsupport::HttpResponse::text(404, "no such package"));
    const auto nothing = [] {};
    const struct {
        const char* name;
        std::string package;
        ApiErrorCode code;
        std::function<void()> arrange;
        std::function<void()> afterwards;  // before the checks: what the operator and the next start do
        std::string id = kId;              // of the plugin upgraded
        std::string installed = "";        // the package of its installed version; "" version one
        bool fromServer = false;           // `package` is a URL the manager upgrades from
    } cases[] = {
        {"refused signature", factory.build(untrusted, "untrusted"), API_VERIFY_SIGN_FAILED, nothing, nothing},
        {"firmware too old", factory.build(newerFirmware, "firmware"), API_FIRMWARE_TOO_OLD, nothing, nothing},
        {"late CRC error", lateCrc, API_UNZIP_FAILED, nothing, nothing},
        {"refused start", factory.build(refusedStart, "start"), API_GENERAL_FAILURE, nothing, nothing},
        {"the stop before the upgrade fails", factory.build(versions.second, "v2"), API_GENERAL_FAILURE,
         [&] { testsupport::writeFile(stopFails, "1\n"); }, [&] { boost::filesystem::remove(stopFails); }},
        {"the rollback cannot put everything back at first", lateCrc, API_UNZIP_FAILED,
         [&] { testsupport::writeFile(blocker + "/x", "x"); },
         [&] {
             const std::string listed = testsupport::runApp("plugincenter", "list").output;
             EXPECT_NE(std::string::npos, listed.find("needs attention: the previous version could not be put back"))
                 << listed;
             EXPECT_EQ(0u, install("-k -f " + factory.build(versions.second, "v2")).find("installplugin failed"));
             boost::filesystem::remove_all(blocker);
             const std::string again = testsupport::runApp("plugincenter", "list").output;  // the next start
             EXPECT_EQ(std::string::npos, again.find("needs attention")) << again;
         }},
        {"the time machine's upgrade to 1.3 fails", factory.build(timeMachineRefused, "tm-refused"),
         API_GENERAL_FAILURE, nothing, nothing, timeMachine.id, factory.build(timeMachine, "tm")},
        {"the download of the upgrade fails", server.url("/missing.qpk"), API_DOWNLOAD_FAILED, nothing, nothing, kId,
         "", true},
    };
    const std::string v1 = factory.build(versions.first, "v1");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        boost::filesystem::remove_all(underRoot("/userdisk/appdata"));
        ASSERT_EQ(0u, install("-k -f " + (c.installed.empty() ? v1 : c.installed)).find("installplugin succeed!"));
        makeRuntimeData(c.id);
        const std::string tree = testsupport::treeText(dataDir(c.id));
        const std::string store = readFile(storeDir() + c.id + ".manifest");
        const std::string record = readFile(dataDir(c.id) + "init_files.record");

        c.arrange();
        if (c.fromServer) {
            PluginManager* manager = Singleton<PluginManager>::instance();
            ASSERT_EQ(API_SUCCESS, manager->upgradeFromServer(c.id, c.package));
            ASSERT_TRUE(manager->waitForInstallation(60000));
            datacenter::PluginInfo progress;
            manager->getUrlInstallPlugin(progress);
            EXPECT_EQ(c.code, progress.errorCode);
        } else {
            EXPECT_EQ("installplugin failed. code is " + std::to_string(c.code) + "\n", install("-k -f " + c.package));
        }
        c.afterwards();

        EXPECT_EQ(tree, testsupport::treeText(dataDir(c.id)));
        EXPECT_EQ(store, readFile(storeDir() + c.id + ".manifest"));
        EXPECT_EQ(record, readFile(dataDir(c.id) + "init_files.record"));
        EXPECT_TRUE(exists(underRoot("/tmp/sim-pluginControllor/" + c.id + ".pid"))) << "not started again";
        EXPECT_FALSE(exists(timecapsuleNewdir()));
        // Nothing staged stays (a download leaves the empty folder).
        const std::string staging = underRoot("/userdisk/appdata/local_install_tmp");
        EXPECT_TRUE(!exists(staging) || boost::filesystem::is_empty(staging));
        EXPECT_FALSE(exists(InstallJournal::sJournalPath()));
    }
}

TEST(InstallLocal, AnUpgradeReplacesThePackagesFilesAndKeepsWhatThePluginAndTheUserMade) {
    PackageFactory factory;
    const auto versions = twoVersions();
    ASSERT_EQ(0u, install("-f " + factory.build(versions.first, "v1")).find("installplugin succeed!"));
    makeRuntimeData();

    ASSERT_EQ(0u, install("-f " + factory.build(versions.second, "v2")).find("installplugin succeed!"));

    EXPECT_EQ("version two", readFile(dataDir() + "data/keep.txt"));
    EXPECT_EQ("only in two", readFile(dataDir() + "www/new/page.html"));
    EXPECT_EQ("runtime", readFile(dataDir() + "userdata/notes"));
    EXPECT_EQ("key = \"value\";\n", readFile(dataDir() + "etc/plugin_config"));
    EXPECT_EQ("the user's", readFile(dataDir() + "mine.txt"));
    EXPECT_NE(std::string::npos, readFile(storeDir() + kId + ".manifest").find("version = \"2.0.0\";"));
    EXPECT_NE(std::string::npos, readFile(dataDir() + "init_files.record").find(dataDir() + "www/new/page.html\n"));
    EXPECT_FALSE(exists(underRoot("/userdisk/appdata/local_install_tmp")));
}

TEST(InstallLocal, AnInstallerInAnotherProcessGetsTheBusyCodeAtOnce) {
    PackageFactory factory;
    const std::string package = factory.build(PackageSpec(), "busy");
    ASSERT_TRUE(InstallJournal::sEnsurePrivateDir());
    const int fd = ::open(InstallJournal::sLockPath().c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, flock(fd, LOCK_EX));
    EXPECT_EQ("installplugin failed. code is 2506\n", install("-k -f " + package));
    EXPECT_FALSE(exists(dataDir()));
    EXPECT_TRUE(exists(package));
    ::close(fd);
    EXPECT_EQ(0u, install("-k -f " + package).find("installplugin succeed!"));
}
