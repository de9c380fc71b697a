#include <gtest/gtest.h>

#include <algorithm>
#include <boost/filesystem.hpp>

#include "Plugin/PluginManager.h"
#include "Plugin/installAction/PackageFiles.h"
#include "common/Singleton.h"
#include "storage/File.h"
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

void writeManifest(const std::string& id, const std::string& text) {
    writeFile(PluginManager::sGetPluginManifestPath(id), "plugin_id = \"" + id + "\";\n" + text);
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
    writeFile(PluginManager::sGetPluginManifestPath("31"), "plugin_id = \"32\";\nsupported_rom = \"netvale_rom\";\n");
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
