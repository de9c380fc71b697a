// What a failed or concurrent installation leaves behind, through the
// installplugin binary with real signed packages.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::exists;
using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::readFile;
using testsupport::underRoot;

namespace {

const std::string kId = "5017400000000000400";

std::string installCommand(const std::string& args) {
    return "DATACENTER_INSTALLPLUGIN_DELAY_MS=0 DATACENTER_ROOT=" + testsupport::root() + " " +
           testsupport::buildDir() + "/apps/installplugin " + args + " 2>/dev/null";
}

std::string install(const std::string& package) {
    return testsupport::installOutcome(testsupport::runApp("installplugin", "-k -f " + package).output);
}

std::string dataDir() {
    return underRoot("/userdisk/appdata/") + kId + "/";
}

std::string storeManifest() {
    return underRoot("/userdisk/appdata//app_infos/") + kId + ".manifest";
}

void failTheStartCommand(bool fail) {
    const std::string path = underRoot("/sim/pluginControllor/b.exit");
    if (fail) {
        testsupport::writeFile(path, "1\n");
    } else {
        boost::filesystem::remove(path);
    }
}

PackageSpec spec() {
    PackageSpec s;
    s.id = kId;
    return s;
}

}  // namespace

TEST(InstallFailureCleanup, AFreshInstallFailingAtTheStartLeavesNothing) {
    PackageFactory factory;
    const std::string package = factory.build(spec(), "fresh");
    failTheStartCommand(true);

    EXPECT_EQ(0u, install(package).find("installplugin failed. code is "));

    EXPECT_FALSE(exists(dataDir()));
    EXPECT_FALSE(exists(storeManifest()));
    EXPECT_FALSE(exists(underRoot("/userdisk/appdata/local_install_tmp")));
    EXPECT_FALSE(exists(underRoot("/userdisk/appdata/.install.journal")));
    // The sandbox was unmounted before the tree went.
    const std::string commands = readFile(underRoot("/tmp/sim-commands.log"));
    EXPECT_NE(std::string::npos, commands.find("chroot_umout.sh " + dataDir() + "\n")) << commands;

    failTheStartCommand(false);
    EXPECT_EQ("installplugin succeed!\n", install(package).substr(0, 23));
}

TEST(InstallFailureCleanup, AFailedUpgradeLeavesTheOldVersionRecordedAndDisabled) {
    PackageFactory factory;
    const std::string package = factory.build(spec(), "upgrade");
    ASSERT_EQ(0u, install(package).find("installplugin succeed!"));
    failTheStartCommand(true);

    EXPECT_EQ(0u, install(package).find("installplugin failed. code is "));

    EXPECT_NE(std::string::npos, readFile(storeManifest()).find("status = \"6\";")) << readFile(storeManifest());
    EXPECT_EQ("app", readFile(dataDir() + "bin/app"));
    EXPECT_FALSE(exists(underRoot("/userdisk/appdata/.install.journal")));
}

TEST(InstallFailureCleanup, TwoInstallersStartedTogetherNeverWriteOverEachOther) {
    PackageFactory factory;
    const std::string package = factory.build(spec(), "together");
    for (int round = 0; round < 3; ++round) {
        const std::string first = underRoot("/first.out");
        const std::string second = underRoot("/second.out");
        testsupport::runCommand("(" + installCommand("-k -f " + package) + " >" + first + " & " +
                                installCommand("-k -f " + package) + " >" + second + "; wait)");
        const std::string a = testsupport::installOutcome(readFile(first));
        const std::string b = testsupport::installOutcome(readFile(second));
        // Each one either installs or is refused with 2506 before it writes.
        for (const std::string& result : {a, b}) {
            EXPECT_TRUE(result.find("installplugin succeed!") == 0 || result == "installplugin failed. code is 2506\n")
                << result;
        }
        EXPECT_TRUE(a.find("succeed") != std::string::npos || b.find("succeed") != std::string::npos);
        EXPECT_NE(std::string::npos, readFile(storeManifest()).find("status = \"5\";"));
    }
}
