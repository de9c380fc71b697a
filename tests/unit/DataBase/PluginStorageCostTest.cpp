// The manifest store's reload cost and its care with files it cannot read:
// a settled store is not parsed again, a change costs the re-read of the
// changed manifest only, and a manifest that cannot be read for a passing
// reason stays.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "DataBase/PluginStorageManager.h"
#include "common/Singleton.h"
#include "storage/Directory.h"
#include "storage/File.h"
#include "support/TestSupport.h"
#include "system/ConfigInfo.h"
#include "unit/DataBase/StoreTestSupport.h"

using datacenter::PluginInfo;
using testsupport::settle;
using testsupport::store;
using testsupport::storeDir;
using testsupport::underRoot;
using testsupport::writeFile;

namespace {

void writeSettledStore(int count) {
    for (int i = 0; i < count; ++i) {
        const std::string id = "p" + std::to_string(i);
        writeFile(storeDir() + id + ".manifest", "plugin_id = \"" + id + "\";\nstatus = \"5\";\n");
        settle(storeDir() + id + ".manifest");
    }
    settle(storeDir());
}

}  // namespace

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
