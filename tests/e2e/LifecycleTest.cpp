// Uninstalling and cleaning plugins that the real pipeline installed, with
// the stand-in platform commands on PATH: what stays, what goes, which
// commands run, and that links planted by a plugin never lead a walk outside
// its directory.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <fstream>
#include <sstream>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/BinaryPluginManger.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/Golden.h"
#include "support/HttpTestServer.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"
#include "system/DeviceMountInfo.h"

using testsupport::exists;
using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::readFile;
using testsupport::underRoot;
using testsupport::writeFile;

namespace fs = boost::filesystem;

namespace {

const std::string kId = "5017400000000000100";

std::string dataDir(const std::string& id = kId) {
    return PluginManager::sGetPluginDataPath(id);
}
std::string simLogPath() {
    return underRoot("/tmp/sim-commands.log");
}

// Installs `spec` through the manager's local installation, as installplugin does.
void install(PackageFactory& factory, const PackageSpec& spec, const std::string& name) {
    ASSERT_EQ(API_SUCCESS, Singleton<PluginManager>::instance()->installFromLocal(factory.build(spec, name), false));
}

PackageSpec richSpec() {
    PackageSpec spec;
    spec.files = {{"bin/app", "app"},          {"lib/libapp.so", "lib"},   {"www/index.html", "<html/>"},
                  {"www/css/site.css", "css"}, {"data.db", "packaged db"}, {"usr/share/app.txt", "share"}};
    return spec;
}

// The lines of the stand-ins' command log since `from` that begin with one of
// `prefixes`: by default those of the plugin controller and the chroot scripts.
std::string platformCommands(size_t from, const std::vector<std::string>& prefixes = {"pluginControllor", "chroot_"}) {
    std::istringstream lines(readFile(simLogPath()).substr(from));
    std::string result;
    for (std::string line; std::getline(lines, line);) {
        for (const std::string& prefix : prefixes) {
            if (line.rfind(prefix, 0) == 0) {
                result += line + "\n";
                break;
            }
        }
    }
    return result;
}

size_t logSize() {
    return exists(simLogPath()) ? readFile(simLogPath()).size() : 0;
}

}  // namespace

TEST(Uninstall, KeepsTheSkeletonWithItsContentAndRemovesEverythingElse) {
    PackageFactory factory;
    install(factory, richSpec(), "rich");
    const std::string dir = dataDir();
    writeFile(dir + "userdata/photo.jpg", "photo");
    writeFile(dir + "extdisks/sda1/movie", "movie");
    writeFile(dir + "cache/tmp.bin", "cache");
    writeFile(dir + "notes.txt", "added later");
    // Links planted by the plugin: at the top, in a folder that is walked
    // into, in place of a walked-into folder, and inside kept data.
    writeFile(underRoot("/outside/secret"), "secret");
    fs::create_directory_symlink(underRoot("/outside"), dir + "escape");
    fs::create_directory_symlink(underRoot("/outside"), dir + "usr/escape");
    fs::remove_all(dir + "usr");
    fs::create_directory_symlink("/", dir + "usr");
    fs::create_directory_symlink(underRoot("/outside"), dir + "userdata/escape");

    PluginManager* manager = Singleton<PluginManager>::instance();
    const size_t before = logSize();
    ASSERT_EQ(API_SUCCESS, manager->uninstallPlugin(kId));

    EXPECT_GOLDEN("lifecycle/uninstall-commands", platformCommands(before));
    EXPECT_GOLDEN("lifecycle/uninstall-tree", testsupport::treeText(dir));
    EXPECT_EQ("secret", readFile(underRoot("/outside/secret")));
    EXPECT_TRUE(fs::is_directory("/etc"));
    EXPECT_FALSE(exists(PluginStorageManager::sGetManifestRootPath() + kId + ".manifest"));
    std::vector<datacenter::PluginInfo> plugins;
    manager->getPluginList(plugins);
    EXPECT_TRUE(plugins.empty());
    // A second uninstall finds no manifest to disable.
    EXPECT_EQ(API_NO_MANIFEST, manager->uninstallPlugin(kId));
}

TEST(Uninstall, RefusesBuiltinsUnsafeIdsAndThePluginBeingInstalled) {
    PackageFactory factory;
    PackageSpec other = richSpec();
    other.id = "5017400000000000101";
    install(factory, other, "other");
    PluginManager* manager = Singleton<PluginManager>::instance();
    const size_t before = logSize();
    for (const std::string& id : {SambaPlugin::Id(), MinidlnaPlugin::Id(), LumoappPlugin::Id()}) {
        EXPECT_EQ(API_BUILTIN_NOT_REMOVABLE, manager->uninstallPlugin(id)) << id;
    }
    EXPECT_EQ(API_EMPTY_ARGUMENT, manager->uninstallPlugin(""));
    for (const std::string& id : std::vector<std::string>{"..", "a/b", "x;touch " + underRoot("/pwned"), "a b"}) {
        EXPECT_EQ(API_FAILED, manager->uninstallPlugin(id)) << id;
        EXPECT_EQ(API_FAILED, manager->cleanPlugin(id)) << id;
        EXPECT_EQ(API_NO_MANIFEST, manager->changePluginStatus(id, datacenter::DISABLED)) << id;
    }
    EXPECT_EQ(before, logSize());
    EXPECT_FALSE(exists(underRoot("/pwned")));

    // Something still mounted below the directory after the unmount step (a
    // mount table that reports one): the plugin is disabled, nothing is deleted.
    const std::string table = underRoot("/mounts");
    writeFile(table, "/dev/sda1 " + fs::canonical(dataDir(other.id)).string() + "/lib ext4 rw 0 0\n");
    datacenter::DeviceMountInfo::sSetMountTablePath(table);
    EXPECT_EQ(API_FAILED, manager->uninstallPlugin(other.id));
    datacenter::DeviceMountInfo::sSetMountTablePath("");
    EXPECT_EQ("<html/>", readFile(dataDir(other.id) + "www/index.html"));
    EXPECT_EQ(datacenter::DISABLED, Singleton<PluginStorageManager>::instance()->getPluginInfoById(other.id).status);

    // A server installation that hangs in its download is "being installed".
    PackageSpec served;
    served.signType = 1;
    served.signer = "official";
    factory.build(served, "served");
    testsupport::HttpTestServer server;
    server.route("/pkg.qpk", testsupport::HttpResponse::stalled());
    ASSERT_EQ(API_SUCCESS, manager->installFromServer(kId, server.url("/pkg.qpk")));
    EXPECT_EQ(API_INSTALL_IN_PROGRESS, manager->uninstallPlugin(kId));
    EXPECT_EQ(API_SUCCESS, manager->uninstallPlugin(other.id));
    server.stop();
    EXPECT_TRUE(manager->waitForInstallation(60000));
}

TEST(CleanPlugin, RemovesWhatWasAddedAndKeepsEveryRecordedFile) {
    PackageFactory factory;
    install(factory, richSpec(), "clean");
    const std::string dir = dataDir();
    writeFile(dir + "cache/x", "added");
    writeFile(dir + "www/added.html", "added");
    writeFile(dir + "userdata/photo.jpg", "kept: not recorded, but a sandbox folder");
    writeFile(underRoot("/outside/secret"), "secret");
    // A recorded directory replaced by a link out, and a record line that
    // points outside the plugin's directory.
    fs::rename(dir + "www/css", dir + "css-moved");
    fs::create_directory_symlink(underRoot("/outside"), dir + "www/css");
    std::ofstream(dir + "init_files.record", std::ios::app) << underRoot("/outside/secret") << "\n"
                                                            << dir << "../../outside/secret\n";
    writeFile(underRoot("/outside/other"), "other");
    std::ofstream(dir + "init_files.record", std::ios::app) << dir << "../../outside\n";

    PluginManager* manager = Singleton<PluginManager>::instance();
    const size_t before = logSize();
    ASSERT_EQ(API_SUCCESS, manager->cleanPlugin(kId));
    EXPECT_GOLDEN("lifecycle/clean-commands", platformCommands(before));
    EXPECT_GOLDEN("lifecycle/clean-tree", testsupport::treeText(dir, false));
    EXPECT_EQ("secret", readFile(underRoot("/outside/secret")));
    EXPECT_EQ("other", readFile(underRoot("/outside/other")));
    datacenter::PluginStatus status = datacenter::NOT_INSTALLED;
    manager->getPluginStatus(kId, status);
    EXPECT_EQ(datacenter::ENABLED, status);
}
