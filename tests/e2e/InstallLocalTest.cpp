// Local installations through the installplugin binary, with real signed
// packages, the stand-in plugin controller on PATH and a temporary root.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <sstream>

#include "common/ApiErrorCode.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::readFile;
using testsupport::readLines;
using testsupport::underRoot;

namespace {

const std::string kId = "5017400000000000100";

testsupport::CommandResult installplugin(const std::string& args) {
    return testsupport::runCommand("DATACENTER_INSTALLPLUGIN_DELAY_MS=0 DATACENTER_ROOT=" + testsupport::root() + " " +
                                   testsupport::buildDir() + "/apps/installplugin " + args + " 2>/dev/null");
}

std::string dataDir(const std::string& id = kId) {
    return underRoot("/userdisk/appdata/") + id + "/";
}
std::string storeDir() {
    return underRoot("/userdisk/appdata//app_infos/");
}
std::string simLog() {
    return readFile(underRoot("/tmp/sim-commands.log"));
}
bool exists(const std::string& path) {
    return boost::filesystem::exists(boost::filesystem::symlink_status(path));
}

std::vector<std::string> stepNames(const std::string& output) {
    static const std::vector<std::string> known = {
        "getPackage",     "changeStatusBeforeInstall", "verifySign",        "unzipFile",      "checkPackage",
        "installPackage", "changePluginStatus",        "savePluginPackage", "RecordInitFiles"};
    std::vector<std::string> steps;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (std::find(known.begin(), known.end(), line) != known.end()) {
            steps.push_back(line);
        }
    }
    return steps;
}

std::string failureLine(ApiErrorCode code) {
    return "installplugin failed. code is " + std::to_string(code) + "\n";
}

// The installer's last line (the steps print before it).
std::string outcome(const testsupport::CommandResult& result) {
    const std::string::size_type last = result.output.rfind("installplugin");
    return last == std::string::npos ? result.output : result.output.substr(last);
}

}  // namespace

TEST(InstallLocal, InstallsRecordsStartsAndMarksTheStoreUpdated) {
    PackageFactory factory;
    PackageSpec spec;
    spec.files["proc/self"] = "sandbox mount point";
    const std::string package = factory.build(spec, "hello");

    const testsupport::CommandResult result = installplugin("-f " + package);
    EXPECT_EQ(0, result.exitStatus);
    EXPECT_EQ(
        (std::vector<std::string>{"getPackage", "changeStatusBeforeInstall", "verifySign", "unzipFile", "checkPackage",
                                  "installPackage", "changePluginStatus", "savePluginPackage", "RecordInitFiles"}),
        stepNames(result.output));
    EXPECT_NE(std::string::npos,
              result.output.find("installplugin succeed!\nupdate mark file " + storeDir() + "hasUpdated\n"));

    // The store knows the plugin, enabled; the controller started it.
    const std::string stored = readFile(storeDir() + kId + ".manifest");
    EXPECT_NE(std::string::npos, stored.find("status = \"5\";"));
    EXPECT_NE(std::string::npos, simLog().find("pluginControllor -b " + kId + "\n"));
    struct stat mark;
    ASSERT_EQ(0, stat((storeDir() + "hasUpdated").c_str(), &mark));
    EXPECT_EQ(0777u, mark.st_mode & 0777);

    // The plugin's files and its token.
    EXPECT_EQ("app", readFile(dataDir() + "bin/app"));
    const std::string manifest = readFile(dataDir() + "etc/manifest");
    const std::string::size_type token = manifest.find("sdk_token = \"");
    ASSERT_NE(std::string::npos, token);
    const std::string value = manifest.substr(token + 13, 32);
    EXPECT_EQ(std::string::npos, value.find_first_not_of("0123456789ABCDEF"));
    EXPECT_EQ('"', manifest[token + 13 + 32]);

    // The file record: the data directory first, its own path last, no sandbox mount point.
    const std::vector<std::string> record = readLines(dataDir() + "init_files.record");
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
    ASSERT_EQ(0, installplugin("-f " + package + " -k").exitStatus);
    EXPECT_TRUE(exists(package));
    testsupport::writeFile(storeDir() + "hasUpdated", "seen");

    const testsupport::CommandResult again = installplugin("-k -f " + package);
    EXPECT_NE(std::string::npos, again.output.find("installplugin succeed!")) << again.output;
    EXPECT_TRUE(exists(package));
    // The installation itself reloads the store, which consumes the old mark;
    // the installer leaves a fresh one that every process can open.
    struct stat mark;
    ASSERT_EQ(0, stat((storeDir() + "hasUpdated").c_str(), &mark));
    EXPECT_EQ(0777u, mark.st_mode & 0777);
    // The reinstallation stopped the installed version before replacing it.
    EXPECT_NE(std::string::npos, simLog().find("pluginControllor -k " + kId + "\n"));
}

TEST(InstallLocal, PackagesThatFailTheChecksReportTheirCodes) {
    PackageFactory factory;
    struct Case {
        const char* name;
        std::string key;
        std::string value;
        ApiErrorCode code;
    };
    const std::vector<Case> cases = {
        {"sdk", "sdk_level", "99", API_SDK_LEVEL_TOO_LOW},
        {"romtype", "supported_rom", "", API_FIRMWARE_TYPE_UNSUPPORTED},
        {"romtype2", "supported_rom", "other_rom", API_FIRMWARE_TYPE_UNSUPPORTED},
        {"romversion", "supported_rom_version", "2.5.0", API_FIRMWARE_TOO_OLD},
    };
    for (const Case& c : cases) {
        PackageSpec spec;
        spec.id = std::string("50174000000000002") + std::to_string(&c - &cases[0]);
        spec.manifest[c.key] = c.value;
        const testsupport::CommandResult result = installplugin("-f " + factory.build(spec, c.name));
        EXPECT_EQ(failureLine(c.code), outcome(result)) << c.name;
        EXPECT_FALSE(exists(storeDir() + "hasUpdated")) << c.name;
    }
    PackageSpec passes;
    passes.id = "5017400000000000300";
    passes.manifest["supported_rom_version"] = "2.4.10";
    EXPECT_NE(std::string::npos,
              installplugin("-f " + factory.build(passes, "romok")).output.find("installplugin succeed!"));
}

TEST(InstallLocal, TamperedUntrustedAndIdLessPackagesAreRefusedBeforeAnythingRuns) {
    PackageFactory factory;
    const std::string good = factory.build(PackageSpec(), "tamper");
    std::string bytes = readFile(good);
    bytes[bytes.size() / 3] ^= 0x01;
    const std::string tampered = testsupport::root() + "/tampered.qpk";
    testsupport::writeFile(tampered, bytes);
    EXPECT_EQ(failureLine(API_VERIFY_SIGN_FAILED), outcome(installplugin("-f " + tampered + " -k")));
    EXPECT_TRUE(exists(tampered));

    PackageSpec untrusted;
    untrusted.signer = "untrusted";
    EXPECT_EQ(failureLine(API_VERIFY_SIGN_FAILED),
              outcome(installplugin("-f " + factory.build(untrusted, "untrusted"))));

    PackageSpec noId;
    noId.id = "";
    EXPECT_EQ(failureLine(API_GET_PACKAGE_FAILED), outcome(installplugin("-f " + factory.build(noId, "noid"))));

    PackageSpec hostile;
    hostile.id = "x;touch " + testsupport::root() + "/pwned";
    const testsupport::CommandResult result = installplugin("-f " + factory.build(hostile, "hostile"));
    EXPECT_EQ(failureLine(API_GET_PACKAGE_FAILED), outcome(result));
    EXPECT_FALSE(exists(testsupport::root() + "/pwned"));
    EXPECT_EQ(std::string::npos, simLog().find("pluginControllor"));
}
