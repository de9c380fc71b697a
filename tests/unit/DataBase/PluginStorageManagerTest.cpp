// The manifest store: reading manifests, cache reloads (also when another
// process changed the store) and their cost, manifests that cannot be read
// for a passing reason, updates, insertion and deletion.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include "DataBase/PluginStorageManager.h"
#include "common/Singleton.h"
#include "storage/Directory.h"
#include "storage/File.h"
#include "support/Golden.h"
#include "support/LogCapture.h"
#include "support/TestSupport.h"
#include "system/ConfigInfo.h"

using datacenter::PluginInfo;
using testsupport::underRoot;
using testsupport::writeFile;

namespace {

std::string storeDir() {
    return underRoot("/userdisk/appdata//app_infos/");
}

PluginStorageManager* store() {
    return Singleton<PluginStorageManager>::instance();
}

void writeManifest(const std::string& fileName, const std::string& body) {
    writeFile(storeDir() + fileName, body);
}

std::string simpleManifest(const std::string& id, const std::string& name) {
    return "plugin_id = \"" + id + "\";\nname = \"" + name + "\";\nversion = \"1.0.0\";\n";
}

// Sets both time stamps of `path` to `seconds`; by default well into the
// past, as for a store that has not changed for a while.
void settle(const std::string& path, time_t seconds = time(nullptr) - 60) {
    const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
}

time_t modifiedAt(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

// Runs `work` in a forked child process (a second user of the store) and waits for it.
void inAnotherProcess(void (*work)()) {
    ASSERT_EQ(0, testsupport::inChildProcess([work] {
                  work();
                  return 0;
              }));
}

void writeSettledStore(int count) {
    for (int i = 0; i < count; ++i) {
        const std::string id = "p" + std::to_string(i);
        writeFile(storeDir() + id + ".manifest", "plugin_id = \"" + id + "\";\nstatus = \"5\";\n");
        settle(storeDir() + id + ".manifest");
    }
    settle(storeDir());
}

}  // namespace

TEST(PluginStorageRead, EveryKeyIsConverted) {
    // Each text key holds its own name, so that a value landing in the wrong field shows.
    const std::vector<std::string> keys = {"name",           "small_icon",   "large_icon",
                                           "developer",      "dev_id",       "version",
                                           "introduction",   "control_url",  "supported_rom_version",
                                           "sdk_token",      "binary_name",  "market_icon",
                                           "installed_icon", "detail_image", "authorize_id"};
    std::string text =
        "plugin_id = \"p1\";\nstatus = \"5\";\nuse_status = \"-7\";\nsdk_level = \"3\";\n"
        "capability_list = [\"net\", \"disk\"];\nmodel_list = [\"R1\"];\n"
        "install_time = \"1700000000\";\nextra_key = \"ignored\";\n";
    for (const std::string& key : keys) {
        text += key + " = \"" + key + "\";\n";
    }
    writeManifest("full.manifest", text);
    PluginInfo info;
    ASSERT_TRUE(store()->getPluginInfoFromManifest(storeDir() + "full.manifest", info));
    EXPECT_EQ("p1", info.id);
    EXPECT_EQ(keys, (std::vector<std::string>{info.name, info.smallIcon, info.largeIcon, info.developer, info.devId,
                                              info.version, info.introduction, info.controlUrl,
                                              info.supportedRomVersion, info.sdkToken, info.binaryName, info.marketIcon,
                                              info.installedIcon, info.detailImage, info.authorizeId}));
    EXPECT_EQ(datacenter::ENABLED, info.status);
    EXPECT_EQ(-7, static_cast<int>(info.useStatus));
    EXPECT_EQ(3, info.sdkLevel);
    EXPECT_EQ((std::vector<std::string>{"net", "disk"}), info.capabilityList);
    EXPECT_EQ((std::vector<std::string>{"R1"}), info.modelList);
    EXPECT_EQ(1700000000, info.installTime);

    // Missing text keys overwrite, missing numbers keep the old value.
    writeManifest("small.manifest", "plugin_id = \"p2\";\n");
    ASSERT_TRUE(store()->getPluginInfoFromManifest(storeDir() + "small.manifest", info));
    EXPECT_EQ("", info.name);
    EXPECT_EQ("", info.authorizeId);
    EXPECT_EQ(datacenter::ENABLED, info.status);
    EXPECT_EQ(3, info.sdkLevel);
}

TEST(PluginStorageRead, WelcomeStatusIsNotReadAndBadNumbersLeaveOnlyTheirRecordOut) {
    writeManifest("w.manifest", "plugin_id = \"5017400000000000005\";\nstatus = \"5\";\n");
    PluginInfo welcome;
    ASSERT_TRUE(store()->getPluginInfoFromManifest(storeDir() + "w.manifest", welcome));
    EXPECT_EQ(datacenter::NOT_INSTALLED, welcome.status);

    // What a package or a hand edit can put where a number belongs: the
    // record is left out with a log line, never thrown about, and the other
    // records stay listed.
    for (const char* bad : {"use_status = \"x\"", "use_status = \"99999999999\"", "sdk_level = \" 1\"",
                            "sdk_level = \"1 \"", "sdk_level = \"+1\"", "sdk_level = \"0x10\"", "status = \"5.0\"",
                            "status = \"-\"", "install_time = \"99999999999999999999\"", "install_time = \"1e9\""}) {
        SCOPED_TRACE(bad);
        writeManifest("bad.manifest", std::string("plugin_id = \"bad\";\n") + bad + ";\n");
        PluginInfo info;
        testsupport::LogCapture log;
        EXPECT_FALSE(store()->getPluginInfoFromManifest(storeDir() + "bad.manifest", info));
        const auto infos = store()->getPluginInfos();
        EXPECT_EQ(1u, infos.count("5017400000000000005"));
        EXPECT_EQ(0u, infos.count("bad"));
        EXPECT_EQ("", store()->getPluginInfoById("bad").id);
        EXPECT_NE(std::string::npos, testsupport::logText(log).find("has a value that is not a number"));
    }
    writeManifest("bad.manifest", "plugin_id = \"bad\";\nsdk_level = \"-2\";\n");
    const auto infos = store()->getPluginInfos();
    EXPECT_EQ(1u, infos.count("5017400000000000005"));
    EXPECT_EQ(-2, infos.at("bad").sdkLevel);
}

TEST(PluginStorageRead, InstallTimesBeyondTheFieldAreClampedNotDropped) {
    writeManifest("late.manifest", "plugin_id = \"late\";\ninstall_time = \"4102444800\";\n");
    writeManifest("early.manifest", "plugin_id = \"early\";\ninstall_time = \"-4102444800\";\n");
    const auto infos = store()->getPluginInfos();
    ASSERT_EQ(2u, infos.size());
    EXPECT_EQ(2147483647, infos.at("late").installTime);
    EXPECT_EQ(-2147483647 - 1, infos.at("early").installTime);
}

TEST(PluginStorageList, InvalidEntriesAreSkippedAndIdlessManifestsDeleted) {
    writeManifest("a.manifest", simpleManifest("a", "A"));
    writeManifest("x.txt", simpleManifest("x", "X"));
    writeManifest("noid.manifest", "name = \"orphan\";\n");
    writeManifest("evil.manifest", simpleManifest("../evil", "E"));
    writeManifest("slash.manifest", simpleManifest("a/b", "S"));
    datacenter::Directory::sCreateDirectory(storeDir() + "dir.manifest");

    const auto infos = store()->getPluginInfos();
    ASSERT_EQ(1u, infos.size());
    EXPECT_EQ("A", infos.at("a").name);
    EXPECT_FALSE(datacenter::File::sExists(storeDir() + "noid.manifest"));
    EXPECT_TRUE(datacenter::File::sExists(storeDir() + "x.txt"));
    EXPECT_TRUE(datacenter::File::sExists(storeDir() + "evil.manifest"));
    EXPECT_FALSE(store()->isValidManifest(storeDir() + "dir.manifest"));
    EXPECT_FALSE(store()->isValidManifest(storeDir() + "a.manifest.bak"));
    EXPECT_TRUE(store()->isValidManifest("no/such/thing.manifest"));

    // A manifest without id that turns up later goes at the next reload.
    writeManifest("late.manifest", "name = \"late\";\n");
    writeFile(storeDir() + PluginStorageManager::sUpdatedFile, "");
    EXPECT_EQ(1u, store()->getPluginInfos().size());
    EXPECT_FALSE(datacenter::File::sExists(storeDir() + "late.manifest"));
}

TEST(PluginStorageList, DuplicateIdsKeepTheLastReadAndUnknownIdsGiveADefaultRecord) {
    writeManifest("one.manifest", simpleManifest("dup", "one"));
    writeManifest("two.manifest", simpleManifest("dup", "two"));
    const std::vector<std::string> order = datacenter::Directory::sListEntries(storeDir());
    ASSERT_EQ(2u, order.size());
    const std::string expected = order.back().find("one.manifest") != std::string::npos ? "one" : "two";
    const auto infos = store()->getPluginInfos();
    ASSERT_EQ(1u, infos.size());
    EXPECT_EQ(expected, infos.at("dup").name);

    const PluginInfo unknown = store()->getPluginInfoById("nosuch");
    EXPECT_EQ("", unknown.id);
    EXPECT_EQ(1, unknown.sdkLevel);
    EXPECT_EQ(0, unknown.installTime);
    EXPECT_EQ(datacenter::NOT_INSTALLED, unknown.status);
    EXPECT_EQ(0u, store()->getPluginInfos().count("nosuch"));
    EXPECT_EQ("", store()->getPluginInfoById("").id);
    EXPECT_EQ(expected, store()->getPluginInfoById("dup").name);
}

TEST(PluginStorageReload, AChangeInsideOneTimeTickIsNotMissed) {
    writeManifest("a.manifest", simpleManifest("a", "cached"));
    ASSERT_EQ("cached", store()->getPluginInfoById("a").name);
    struct stat listed;
    ASSERT_EQ(0, stat(storeDir().c_str(), &listed));

    // Another process replaces the manifest; the directory keeps exactly the
    // time stamp it had at the listing, as on a file system whose clock has
    // not ticked since.
    inAnotherProcess(
        [] { datacenter::ConfigInfo::sGetInstance()->setConfigToFile(storeDir() + "a.manifest", "name", "changed"); });
    const struct timespec times[2] = {listed.st_atim, listed.st_mtim};
    ASSERT_EQ(0, utimensat(AT_FDCWD, storeDir().c_str(), times, 0));
    EXPECT_EQ("changed", store()->getPluginInfoById("a").name);

    // A newer directory time is noticed as well.
    inAnotherProcess(
        [] { datacenter::ConfigInfo::sGetInstance()->setConfigToFile(storeDir() + "a.manifest", "name", "later"); });
    settle(storeDir(), listed.st_mtim.tv_sec + 5);
    EXPECT_EQ("later", store()->getPluginInfoById("a").name);
}

TEST(PluginStorageUpdate, StatusChangesAreVisibleAtOnceAndWritten) {
    writeManifest("a.manifest", simpleManifest("a", "A"));
    ASSERT_EQ(datacenter::NOT_INSTALLED, store()->getPluginInfoById("a").status);
    const time_t listed = modifiedAt(storeDir());

    ASSERT_TRUE(store()->updateStatusToStorage("a", datacenter::DISABLED));
    ASSERT_TRUE(store()->updateUseStatusToStorage("a", static_cast<datacenter::PluginUseStatus>(-3)));
    settle(storeDir(), listed);  // no reload: the cache itself carries the change
    const PluginInfo info = store()->getPluginInfoById("a");
    EXPECT_EQ(datacenter::DISABLED, info.status);
    EXPECT_EQ(-3, static_cast<int>(info.useStatus));
    EXPECT_EQ("6", datacenter::ConfigInfo::sGetConfigFromFile(storeDir() + "a.manifest", "status"));
    EXPECT_EQ("-3", datacenter::ConfigInfo::sGetConfigFromFile(storeDir() + "a.manifest", "use_status"));
    EXPECT_EQ("A", datacenter::ConfigInfo::sGetConfigFromFile(storeDir() + "a.manifest", "name"));

    EXPECT_FALSE(store()->updateUseStatusToStorage("missing", datacenter::USE_STATUS_NONE));
    EXPECT_FALSE(datacenter::File::sExists(storeDir() + "missing.manifest"));
    EXPECT_FALSE(store()->updateToStorage(info));
    EXPECT_EQ(datacenter::DISABLED, store()->getPluginInfoById("a").status);
}

TEST(PluginStorageInsert, CopiesTheStampedManifestIntoTheStoreThroughATemporaryOfItsOwn) {
    const std::string own = underRoot("/userdisk/appdata/") + "p9" + "/" + "/etc/manifest";
    writeFile(own, "plugin_id = \"p9\";\nname = \"Nine\";\nsdk_level = \"2\";\n");
    // What another process storing the same id is writing right now.
    const std::string theirs = storeDir() + ".incoming-p9.manifest";
    writeFile(theirs, "half-written");
    PluginInfo info;
    const long long before = static_cast<long long>(time(nullptr));
    ASSERT_TRUE(store()->insertToStorage("p9", own, info));
    EXPECT_EQ("p9", info.id);
    EXPECT_EQ("Nine", info.name);
    EXPECT_EQ(2, info.sdkLevel);
    EXPECT_GE(info.installTime, before);
    EXPECT_LE(info.installTime, before + 5);
    EXPECT_EQ(std::to_string(info.installTime), datacenter::ConfigInfo::sGetConfigFromFile(own, "install_time"));
    EXPECT_EQ(std::to_string(info.installTime),
              datacenter::ConfigInfo::sGetConfigFromFile(store()->getManifestFilePath("p9"), "install_time"));
    EXPECT_EQ("Nine", store()->getPluginInfos().at("p9").name);
    // The other writer's file is untouched and no temporary of this insertion is left.
    EXPECT_EQ("half-written", testsupport::readFile(theirs));
    EXPECT_EQ(".incoming-p9.manifest\np9.manifest\n", testsupport::treeText(storeDir(), false));

    PluginInfo unused;
    EXPECT_FALSE(store()->insertToStorage("p9", "", unused));
    EXPECT_FALSE(store()->insertToStorage("p8", own + ".missing", unused));
    EXPECT_FALSE(datacenter::File::sExists(storeDir() + "p8.manifest"));
}

TEST(PluginStorageCost, ASettledStoreIsNotParsedAgainAndAChangeCostsOneFile) {
    writeSettledStore(20);
    ASSERT_EQ(20u, store()->getPluginInfos().size());
    const uint64_t loaded = store()->manifestParseCount();
    EXPECT_EQ(20u, store()->getPluginInfos().size());
    EXPECT_EQ("p7", store()->getPluginInfoById("p7").id);
    EXPECT_EQ(loaded, store()->manifestParseCount());

    // Another process switches one plugin off: this one reads that file only.
    ASSERT_EQ(0, testsupport::inChildProcess([] {
                  return Singleton<PluginStorageManager>::instance()->updateStatusToStorage("p3", datacenter::DISABLED)
                             ? 0
                             : 1;
              }));
    EXPECT_EQ(datacenter::DISABLED, store()->getPluginInfoById("p3").status);
    EXPECT_EQ(loaded + 1, store()->manifestParseCount());
    EXPECT_EQ(datacenter::ENABLED, store()->getPluginInfoById("p4").status);

    // The mark file of the installer does not make settled manifests parse again.
    settle(storeDir() + "p3.manifest");
    store()->getPluginInfos();
    writeFile(storeDir() + PluginStorageManager::sUpdatedFile, "");
    const uint64_t before = store()->manifestParseCount();
    EXPECT_EQ(20u, store()->getPluginInfos().size());
    EXPECT_EQ(before, store()->manifestParseCount());
    EXPECT_FALSE(datacenter::File::sExists(storeDir() + PluginStorageManager::sUpdatedFile));
}

TEST(PluginStorageCost, AManifestThatCannotBeReadNowIsKept) {
    writeSettledStore(1);
    ASSERT_EQ(1u, store()->getPluginInfos().size());
    const std::string path = storeDir() + "p0.manifest";

    // With every descriptor in use the manifest cannot be opened: the read
    // fails, and the file must not be taken for one without a plugin id.
    EXPECT_EQ(0, testsupport::inChildProcess([&path] {
                  const int firstFree = open("/dev/null", O_RDONLY);
                  close(firstFree);
                  const struct rlimit limit = {static_cast<rlim_t>(firstFree), static_cast<rlim_t>(firstFree)};
                  setrlimit(RLIMIT_NOFILE, &limit);
                  PluginInfo info;
                  return store()->getPluginInfoFromManifest(path, info) ? 1 : 0;
              }));
    EXPECT_TRUE(datacenter::File::sExists(path));

    // One that does not parse stays too and is simply not listed; one that
    // parses without a plugin id goes.
    writeFile(storeDir() + "broken.manifest", "plugin_id = \"broken\";\nname = \"cut sh");
    writeFile(storeDir() + "noid.manifest", "name = \"orphan\";\n");
    const auto infos = store()->getPluginInfos();
    EXPECT_EQ(1u, infos.size());
    EXPECT_TRUE(datacenter::File::sExists(storeDir() + "broken.manifest"));
    EXPECT_FALSE(datacenter::File::sExists(storeDir() + "noid.manifest"));

    // Once it is whole again it is listed.
    writeFile(storeDir() + "broken.manifest", "plugin_id = \"broken\";\nname = \"whole\";\n");
    EXPECT_EQ("whole", store()->getPluginInfoById("broken").name);
}

TEST(PluginStorageCost, TheWelcomeStatusSetHereSurvivesAReRead) {
    const std::string welcome = "5017400000000000005";
    writeFile(storeDir() + welcome + ".manifest", "plugin_id = \"" + welcome + "\";\nname = \"w\";\n");
    ASSERT_EQ(datacenter::NOT_INSTALLED, store()->getPluginInfoById(welcome).status);
    ASSERT_TRUE(store()->updateStatusToStorage(welcome, datacenter::DISABLED));
    datacenter::ConfigInfo::sGetInstance()->setConfigToFile(storeDir() + welcome + ".manifest", "name", "again");
    const PluginInfo info = store()->getPluginInfoById(welcome);
    EXPECT_EQ("again", info.name);
    EXPECT_EQ(datacenter::DISABLED, info.status);
}
