// A small package installed and uninstalled many times in one process, with
// a listing after every step: the manifest store, the pid file and the
// record of installed files must agree with each other after each cycle, and
// nothing the package brought may pile up in the plugin root.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <set>
#include <string>
#include <vector>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/PackageFactory.h"
#include "system/ConfigInfo.h"

namespace fs = boost::filesystem;

namespace {

const int kCycles = 200;

// Every path below the plugin root, links included, relative to it.
std::set<std::string> pluginRootEntries() {
    const fs::path root = PluginManager::sGetPluginRootPath();
    std::set<std::string> entries;
    for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
        entries.insert(it->path().string().substr(root.string().size()));
    }
    return entries;
}

std::vector<std::string> listedIds(PluginManager* manager) {
    std::vector<datacenter::PluginInfo> plugins;
    EXPECT_EQ(API_SUCCESS, manager->getPluginList(plugins));
    std::vector<std::string> ids;
    for (const auto& plugin : plugins) {
        ids.push_back(plugin.id);
    }
    return ids;
}

std::string pidEntry(const std::string& id) {
    return datacenter::ConfigInfo::sGetConfigFromFile(PluginManager::sGetPluginPidConfig(), "pid_of_" + id);
}

}  // namespace

TEST(InstallCycleStress, TwoHundredInstallUninstallCyclesLeaveTheStoreAndTreeConsistent) {
    testsupport::PackageFactory factory;
    testsupport::PackageSpec spec;
    spec.files = {{"bin/app", "app"}, {"www/index.html", "<html/>"}, {"www/css/site.css", "css"}, {"data.db", "db"}};
    const std::string package = factory.build(spec, "cycle");
    PluginManager* manager = Singleton<PluginManager>::instance();
    const std::string dataDir = PluginManager::sGetPluginDataPath(spec.id);
    const std::string manifest = Singleton<PluginStorageManager>::instance()->getManifestFilePath(spec.id);

    std::set<std::string> afterFirstUninstall;
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        ASSERT_EQ(API_SUCCESS, manager->installFromLocal(package, true));
        ASSERT_EQ(std::vector<std::string>{spec.id}, listedIds(manager));
        ASSERT_TRUE(fs::is_regular_file(dataDir + "init_files.record"));
        ASSERT_TRUE(fs::is_regular_file(dataDir + "www/css/site.css"));

        ASSERT_EQ(API_SUCCESS, manager->uninstallPlugin(spec.id));
        ASSERT_TRUE(listedIds(manager).empty());
        ASSERT_FALSE(fs::exists(fs::symlink_status(manifest)));
        ASSERT_EQ("", pidEntry(spec.id));
        for (const char* gone : {"init_files.record", "www", "data.db"}) {
            ASSERT_FALSE(fs::exists(fs::symlink_status(dataDir + gone))) << gone;
        }
        // The first uninstall leaves the sandbox skeleton; later cycles must
        // leave exactly the same entries, no more.
        if (cycle == 0) {
            afterFirstUninstall = pluginRootEntries();
        } else {
            ASSERT_EQ(afterFirstUninstall, pluginRootEntries());
        }
    }
    EXPECT_TRUE(fs::exists(package)) << "the package was to be kept";
}
