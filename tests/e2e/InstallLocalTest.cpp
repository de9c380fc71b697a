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

#include "Plugin/installAction/InstallJournal.h"
#include "common/ApiErrorCode.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::exists;
using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::readFile;
using testsupport::underRoot;

namespace {

const std::string kId = "5017400000000000100";

std::string dataDir() {
    return underRoot("/userdisk/appdata/") + kId + "/";
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

TEST(InstallLocal, AFailedUpgradeLeavesTheOldVersionRecordedAndDisabled) {
    PackageFactory factory;
    const std::string package = factory.build(PackageSpec(), "upgrade");
    ASSERT_EQ(0u, install("-k -f " + package).find("installplugin succeed!"));
    failTheStartCommand(true);

    EXPECT_EQ(0u, install("-k -f " + package).find("installplugin failed. code is "));

    EXPECT_NE(std::string::npos, readFile(storeDir() + kId + ".manifest").find("status = \"6\";"));
    EXPECT_EQ("app", readFile(dataDir() + "bin/app"));
    EXPECT_FALSE(exists(InstallJournal::sJournalPath()));
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
