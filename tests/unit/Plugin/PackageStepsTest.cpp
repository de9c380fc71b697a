#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem.hpp>

#include "Plugin/PluginManager.h"
#include "Plugin/installAction/PackageFiles.h"
#include "common/Singleton.h"
#include "storage/File.h"
#include "support/LogCapture.h"
#include "support/PackageFactory.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"

using testsupport::underRoot;
using testsupport::writeFile;

namespace {

// A zip with `entries` (name -> content).
std::string makeZip(const std::string& name, const std::vector<std::pair<std::string, std::string>>& entries) {
    static testsupport::PackageFactory factory;
    return factory.rawZip(entries, {}, name);
}

// Only the check steps of an installation, for plugin `id`.
class ChecksOnly : public InstallAction {
public:
    explicit ChecksOnly(const std::string& id) : InstallAction(id, "", "") {}
    ApiErrorCode checkBeforeInstall(const std::string&) override { return API_SUCCESS; }
    ApiErrorCode getPackage() override { return API_SUCCESS; }
    ApiErrorCode verifySign() override { return API_SUCCESS; }
    std::string statOnceString() override { return "test"; }
};

// The plugin's manifest, and the copy of the verified payload's one that
// the installer keeps and checks.
void writeManifest(const std::string& id, const std::string& text, const std::string& idLine = "") {
    const std::string content = (idLine.empty() ? "plugin_id = \"" + id + "\";\n" : idLine) + text;
    writeFile(PluginManager::sGetPluginManifestPath(id), content);
    writeFile(PluginManager::sGetPluginRootPath() + InstallAction::sLocalInstallTmpDir + id + ".manifest", content);
}

}  // namespace

TEST(PackageUnzip, UnpacksNestedFilesAndKeepsTheCopyReserve) {
    // Files of one folder need not come together in the archive.
    const std::string zip = makeZip("ok.zip", {{"manifest", "plugin_id = \"9\";\n"},
                                               {"bin/app", "app"},
                                               {"www/a/index.html", "a"},
                                               {"bin/helper", "helper"},
                                               {"www/b.css", "b"},
                                               {"www/a/c.js", "c"}});
    const std::string dest = testsupport::makeScratchDir("unzip");
    ASSERT_TRUE(PackageFiles::sUnzip(zip, dest));
    for (const auto& file : std::vector<std::pair<std::string, std::string>>{{"bin/app", "app"},
                                                                             {"bin/helper", "helper"},
                                                                             {"www/a/index.html", "a"},
                                                                             {"www/b.css", "b"},
                                                                             {"www/a/c.js", "c"}}) {
        EXPECT_EQ(file.second, testsupport::readFile(dest + "/" + file.first)) << file.first;
    }
    EXPECT_EQ("9", PackageFiles::sGetIdFromPackage(zip));

    const std::string full = testsupport::makeScratchDir("full");
    // 17 bytes of manifest and 12 of the other files must fit beside the reserve.
    const uint64_t needed = datacenter::File::sCopyReserveBytes + 17 + 12;
    datacenter::File::sSetDiskSpaceQuery([needed](const std::string&) {
        datacenter::DiskSpaceInfo info;
        info.available = needed - 1;
        return info;
    });
    EXPECT_FALSE(PackageFiles::sUnzip(zip, full));
    EXPECT_FALSE(boost::filesystem::exists(full + "/manifest"));
    datacenter::File::sSetDiskSpaceQuery(nullptr);
}

TEST(PackageUnzip, PayloadsWithoutAUsableManifestHaveNoId) {
    EXPECT_EQ("", PackageFiles::sGetIdFromPackage(makeZip("nomanifest.zip", {{"bin/app", "x"}})));
    EXPECT_EQ("", PackageFiles::sGetIdFromPackage(makeZip("noid.zip", {{"manifest", "name = \"x\";\n"}})));
    const std::string notZip = testsupport::root() + "/not.zip";
    writeFile(notZip, "plain text");
    EXPECT_EQ("", PackageFiles::sGetIdFromPackage(notZip));
    EXPECT_FALSE(PackageFiles::sUnzip(notZip, testsupport::makeScratchDir("notzip")));
    EXPECT_EQ("", PackageFiles::sGetIdFromPackage(testsupport::root() + "/missing.zip"));
}

// Every refusal of the generated hostile corpus logs its own reason; the id
// is still read where the archive's extent can be found, so the refusal comes
// from the unpacking step.
TEST(PackageUnzip, EachRefusalNamesItsReason) {
    const std::string out = testsupport::makeScratchDir("corpus");
    writeFile(out + "/manifest", "plugin_id = \"7\";\n");
    ASSERT_EQ(0, testsupport::runCommand("python3 " + testsupport::sourceDir() + "/tests/data/hostile/make-corpus.py " +
                                         out + "/manifest " + out)
                     .exitStatus);
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"overlap-shared-header", "entries 'bin/a' and 'bin/b' share bytes of the archive"},
        {"overlap-data", "entries 'bin/a' and 'bin/b' share bytes of the archive"},
        {"name-nul", "entry 'bin/a\\x00b': its name holds a NUL byte"},
        {"local-name-differs", "its local header and the central directory disagree on the name"},
        {"local-crc-differs", "its local header and the central directory disagree on the CRC or sizes"},
        {"descriptor-crc-differs", "its data descriptor and the central directory disagree on the CRC or sizes"},
        {"deflate-bytes-after-stream", "bytes follow the end of its compressed data"},
        {"encrypted", "entry 'bin/a': it is encrypted, which is not supported"},
        {"method-lzma", "it is compressed with LZMA (method 14), which is not supported"},
        {"multi-disk", "it spans several disks, which is not supported"},
        {"backslash-utf8", "holds a backslash or control character"},
        {"slip-backslash", "climbs out"},
        {"fifo-directory", "it is neither a plain file nor a directory"},
        {"crc-wrong", "CRC error"},
    };
    for (const auto& c : cases) {
        const std::string zip = out + "/" + c.first + ".zip";
        testsupport::LogCapture log;
        EXPECT_FALSE(PackageFiles::sUnzip(zip, testsupport::makeScratchDir(c.first))) << c.first;
        EXPECT_TRUE(log.contains(c.second)) << c.first;
        EXPECT_EQ(c.first == "multi-disk" ? "" : "7", PackageFiles::sGetIdFromPackage(zip)) << c.first;
    }
}

TEST(PackageChecks, SdkLevelFirmwareTypeVersionAndIdInThatOrder) {
    const auto runner = testsupport::RecordingRunner::sInstall();
    testsupport::PackageFactory::setFirmware("1.2.9");
    ChecksOnly action("31");
    writeManifest("31", "supported_rom = \"netvale_rom\";\n");
    EXPECT_EQ(API_SUCCESS, action.checkPackage());

    writeManifest("31", "sdk_level = \"2\";\nsupported_rom = \"other\";\n");
    EXPECT_EQ(API_SDK_LEVEL_TOO_LOW, action.checkPackage());
    writeFile(underRoot("/usr/share/datacenter/sdk_level"), "sdk_level = \"2\";\n");
    EXPECT_EQ(API_FIRMWARE_TYPE_UNSUPPORTED, action.checkPackage());
    writeManifest("31", "supported_rom = \"\";\n");
    EXPECT_EQ(API_FIRMWARE_TYPE_UNSUPPORTED, action.checkPackage());
    writeManifest("31", "sdk_level = \"abc\";\nsupported_rom = \"netvale_rom\";\n");
    EXPECT_EQ(API_SDK_LEVEL_TOO_LOW, action.checkPackage());

    for (const auto& check : std::vector<std::pair<std::string, bool>>{
             {"1.2.9", true}, {"1.2.8", true}, {"1.3.0", false}, {"1.2", false}, {"0.9.99", true}}) {
        writeManifest("31", "supported_rom = \"netvale_rom\";\nsupported_rom_version = \"" + check.first + "\";\n");
        EXPECT_EQ(check.second, InstallAction::sCheckRomVersion("31")) << check.first;
    }
    writeManifest("31", "supported_rom = \"netvale_rom\";\n", "plugin_id = \"32\";\n");
    EXPECT_EQ(API_PLUGIN_ID_MISMATCH, action.checkPackage());
}

TEST(PackageRecord, ListsFilesAndLinksWithoutWalkingLinksOrIgnoredFoldersAndSkipsADanglingLink) {
    namespace fs = boost::filesystem;
    const std::string dir = testsupport::makeScratchDir("record") + "/";
    const std::string outside = testsupport::makeScratchDir("record-outside");
    writeFile(dir + "www/a/index.html", "a");
    writeFile(dir + "proc/self", "x");
    writeFile(outside + "/secret", "s");
    fs::create_symlink(outside, dir + "www/out");
    std::vector<std::string> files;
    ASSERT_TRUE(PackageFiles::sGetFilesPath(dir, files, PackageFiles::sGetIgnoreFiles(dir)));
    std::sort(files.begin(), files.end());
    EXPECT_EQ((std::vector<std::string>{dir, dir + "www", dir + "www/a", dir + "www/a/index.html", dir + "www/out"}),
              files);

    // A dangling link is left out; only a missing start fails.
    fs::create_symlink(outside + "/missing", dir + "www/a/dangling");
    std::vector<std::string> again;
    EXPECT_TRUE(PackageFiles::sGetFilesPath(dir, again, PackageFiles::sGetIgnoreFiles(dir)));
    std::sort(again.begin(), again.end());
    EXPECT_EQ(files, again);
    EXPECT_FALSE(PackageFiles::sGetFilesPath(dir + "missing", again, {}));
}

TEST(PackageArchive, KeepsACopyOfThePackageForReinstallation) {
    PluginManager* manager = Singleton<PluginManager>::instance();
    const std::string package = testsupport::root() + "/p.qpk";
    writeFile(package, "package bytes");
    EXPECT_EQ(API_SUCCESS, manager->savePluginPackage("41", package));
    EXPECT_EQ("package bytes", testsupport::readFile(underRoot("/userdisk/appdata/app_package/41")));
    EXPECT_FALSE(boost::filesystem::exists(package));
}
