// The installer's standard output and the platform commands it issues, for
// a successful run, a failure at each step that can be provoked, and a usage
// run, compared with tests/data/install/*.expected. Each case runs in its own
// process under a fresh root, so the command log holds only that run.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <chrono>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/Golden.h"
#include "support/LogCapture.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::underRoot;

namespace {

// Exit status, standard output and the stand-ins' command log of one run;
// the log is started afresh for it.
std::string installRun(const std::string& args) {
    boost::filesystem::remove(underRoot("/tmp/sim-commands.log"));
    const testsupport::CommandResult result = testsupport::runApp("installplugin", args);
    const std::string log = underRoot("/tmp/sim-commands.log");
    const std::string commands = boost::filesystem::exists(log) ? testsupport::readFile(log) : std::string();
    return "## exit status " + std::to_string(result.exitStatus) + "\n## standard output\n" + result.output +
           "## commands\n" + commands;
}

// A run with the package made by `factory` from `spec`.
std::string installPackage(PackageFactory& factory, const PackageSpec& spec) {
    return installRun("-f " + factory.build(spec, "golden"));
}

}  // namespace

TEST(InstallGolden, Usage) {
    EXPECT_GOLDEN("install/usage", installRun("-s"));
}

TEST(InstallGolden, Success) {
    PackageFactory factory;
    EXPECT_GOLDEN("install/success", installPackage(factory, PackageSpec()));
}

TEST(InstallGolden, NoPackagePath) {
    // The data directory of an empty id is the root of all plugins: nothing of it may go.
    const std::string root = testsupport::root();
    testsupport::writeFile(root + "/a/file", "one");
    testsupport::writeFile(root + "/b/c/file", "two");
    const std::string before = testsupport::runCommand("cd " + root + " && find a b | sort").output;
    EXPECT_GOLDEN("install/fail-no-path", installRun("-u"));
    EXPECT_EQ(before, testsupport::runCommand("cd " + root + " && find a b | sort").output);
    EXPECT_EQ("two", testsupport::readFile(root + "/b/c/file"));
}

TEST(InstallGolden, MissingPackageFile) {
    EXPECT_GOLDEN("install/fail-get-package-missing", installRun("-f " + testsupport::root() + "/none.qpk"));
}

TEST(InstallGolden, PackageWithoutId) {
    PackageFactory factory;
    PackageSpec spec;
    spec.id = "";
    EXPECT_GOLDEN("install/fail-get-package-no-id", installPackage(factory, spec));
}

TEST(InstallGolden, TamperedSignature) {
    PackageFactory factory;
    const std::string package = factory.build(PackageSpec(), "tamper");
    std::string bytes = testsupport::readFile(package);
    bytes[bytes.size() / 3] ^= 0x01;
    testsupport::writeFile(package, bytes);
    EXPECT_GOLDEN("install/fail-verify-sign", installRun("-f " + package));
}

TEST(InstallGolden, PayloadThatIsNoArchive) {
    PackageFactory factory;
    const std::string junk = testsupport::root() + "/junk.zip";
    testsupport::writeFile(junk, "this is not a zip archive");
    EXPECT_GOLDEN("install/fail-get-package-not-an-archive",
                  installRun("-f " + factory.sign(junk, 0, "developer", "junk")));
}

TEST(InstallGolden, ArchiveEntryThatClimbsOut) {
    PackageFactory factory;
    const std::string manifest = PackageFactory::manifestText(PackageSpec());
    const std::string package = factory.sign(
        factory.rawZip({{"manifest", manifest}, {"../escape.txt", "x"}}, {}, "climb"), 0, "developer", "climb");
    EXPECT_GOLDEN("install/fail-unzip", installRun("-f " + package));
}

TEST(InstallGolden, SdkLevelTooHigh) {
    PackageFactory factory;
    PackageSpec spec;
    spec.manifest["sdk_level"] = "99";
    EXPECT_GOLDEN("install/fail-check-sdk-level", installPackage(factory, spec));
}

TEST(InstallGolden, FirmwareTooOld) {
    PackageFactory factory;
    PackageSpec spec;
    spec.manifest["supported_rom_version"] = "2.5.0";
    EXPECT_GOLDEN("install/fail-check-firmware-version", installPackage(factory, spec));
}

TEST(InstallGolden, StartRefusedByTheController) {
    PackageFactory factory;
    testsupport::writeFile(underRoot("/sim/pluginControllor/b.exit"), "1\n");
    EXPECT_GOLDEN("install/fail-change-plugin-status", installPackage(factory, PackageSpec()));
}

TEST(InstallGolden, ReinstallStopsTheInstalledVersionFirst) {
    PackageFactory factory;
    const std::string package = factory.build(PackageSpec(), "first");
    testsupport::runApp("installplugin", "-f " + package);
    EXPECT_GOLDEN("install/success-reinstall", installPackage(factory, PackageSpec()));
}

TEST(InstallGolden, FailedUpgradePutsTheInstalledVersionBackAndStartsIt) {
    PackageFactory factory;
    testsupport::runApp("installplugin", "-f " + factory.build(PackageSpec(), "first"));
    PackageSpec newer;
    newer.manifest["supported_rom_version"] = "9.0.0";
    EXPECT_GOLDEN("install/fail-upgrade", installPackage(factory, newer));
}

TEST(InstallGolden, LogLinesNameTheUnnamedPayload) {
    // The payload is verified into a file without a name; the lines that
    // name it say where it would lie.
    PackageFactory factory;
    const std::string junk = testsupport::root() + "/junk.zip";
    testsupport::writeFile(junk, "this is not a zip archive");
    const std::string package = factory.sign(junk, 0, "developer", "junk");
    PackageSpec newer;
    newer.manifest["supported_rom_version"] = "9.0.0";
    const std::string later = factory.build(newer, "later");
    testsupport::LogCapture log;
    EXPECT_EQ(API_GET_PACKAGE_FAILED, Singleton<PluginManager>::instance()->installFromLocal(package, true));
    EXPECT_EQ(API_FIRMWARE_TOO_OLD, Singleton<PluginManager>::instance()->installFromLocal(later, true));
    std::string named;
    for (const testsupport::LogCapture::Line& line : log.records()) {
        if (line.text.find("path is") != std::string::npos) {
            named += line.text + "\n";
        }
    }
    testsupport::Placeholders placeholders;
    placeholders.add(package, "<PACKAGE>").add(later, "<LATER PACKAGE>");
    EXPECT_GOLDEN("install/payload-log-lines", named, placeholders);
}

TEST(InstallCli, WaitsTwoSecondsBeforeAnythingByDefault) {
    const auto start = std::chrono::steady_clock::now();
    testsupport::runCommand("DATACENTER_ROOT=" + testsupport::root() + " " + testsupport::buildDir() +
                            "/apps/installplugin -s >/dev/null 2>&1");
    // A lower bound only: the start-up delay must not be skipped on a router.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
}
