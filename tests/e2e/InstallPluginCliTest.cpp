// Runs the installplugin binary as a router's firmware would, under the test root.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include "support/TestSupport.h"

using testsupport::runCommand;

namespace {

// The installer's outcome: its last line (the pipeline prints its steps before it).
std::string outcome(const testsupport::CommandResult& result) {
    const std::string::size_type last = result.output.rfind("installplugin");
    return last == std::string::npos ? result.output : result.output.substr(last);
}

testsupport::CommandResult installplugin(const std::string& args) {
    return runCommand("DATACENTER_INSTALLPLUGIN_DELAY_MS=0 DATACENTER_ROOT=" + testsupport::root() + " " +
                      testsupport::buildDir() + "/apps/installplugin " + args + " 2>/dev/null");
}

}  // namespace

TEST(InstallPluginCli, UnknownOptionPrintsUsageWithTrailingBlankAndExitsOne) {
    const testsupport::CommandResult result = installplugin("-s");
    EXPECT_EQ(1, result.exitStatus);
    EXPECT_EQ("Usage: installplugin -f qpkFile [-u] [-s] \n", result.output);
}

TEST(InstallPluginCli, FailuresArePrintedWithTheirCodeAndExitZero) {
    const testsupport::CommandResult noPath = installplugin("");
    EXPECT_EQ(0, noPath.exitStatus);
    EXPECT_EQ("installplugin failed. code is 2\n", outcome(noPath));

    const testsupport::CommandResult missing = installplugin("-f " + testsupport::root() + "/none.qpk -k -u");
    EXPECT_EQ(0, missing.exitStatus);
    EXPECT_EQ("installplugin failed. code is 2503\n", outcome(missing));
    EXPECT_FALSE(boost::filesystem::exists(testsupport::underRoot("/userdisk/appdata//app_infos/hasUpdated")));
}

TEST(InstallPluginCli, AFailedInstallWithAnEmptyPathLosesNothingOfTheRoot) {
    const std::string root = testsupport::root();
    testsupport::writeFile(root + "/a/file", "one");
    testsupport::writeFile(root + "/b/c/file", "two");
    testsupport::writeFile(root + "/top", "three");
    const std::string before = runCommand("cd " + root + " && find a b top | sort").output;

    EXPECT_EQ("installplugin failed. code is 2\n", outcome(installplugin("-u")));
    EXPECT_EQ(before, runCommand("cd " + root + " && find a b top | sort").output);
    EXPECT_EQ("two", testsupport::readFile(root + "/b/c/file"));
}

TEST(InstallPluginCli, WaitsTwoSecondsBeforeAnythingByDefault) {
    const auto start = std::chrono::steady_clock::now();
    runCommand("DATACENTER_ROOT=" + testsupport::root() + " " + testsupport::buildDir() +
               "/apps/installplugin -s >/dev/null 2>&1");
    // A lower bound only: the start-up delay must not be skipped on a router.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
}
