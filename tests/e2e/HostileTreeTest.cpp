// Hostile packages and hostile plugin trees, replayed through the installplugin
// binary: archives that try to write outside the plugin (tests/data/hostile),
// links a plugin plants in its own directory before an upgrade or a
// configuration write, and special files given as packages. Each case checks
// the result code and that nothing outside the plugin's directory changed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include "Plugin/PluginManager.h"
#include "common/ApiErrorCode.h"
#include "common/Singleton.h"
#include "storage/TreeRemoval.h"
#include "storage/UniqueFd.h"
#include "support/HttpTestServer.h"
#include "support/LogCapture.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

namespace fs = boost::filesystem;
using testsupport::exists;
using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::readFile;
using testsupport::underRoot;
using testsupport::writeFile;

namespace {

const std::string kId = "5017400000000000100";

testsupport::CommandResult installplugin(const std::string& args) {
    return testsupport::runApp("installplugin", args);
}

std::string dataDir() {
    return underRoot("/userdisk/appdata/") + kId + "/";
}

std::string codeLine(int code) {
    return code == 0 ? "installplugin succeed!" : "installplugin failed. code is " + std::to_string(code);
}

bool installs(const testsupport::CommandResult& result, int code) {
    return result.output.find(codeLine(code) + "\n") != std::string::npos;
}

// Type, permission bits and content of every entry below the root, one line
// each in path order, except the plugin's own directory and the folders the
// installer keeps for itself.
std::string outsideSnapshot() {
    std::map<std::string, std::string> entries;
    const std::string own = dataDir().substr(0, dataDir().size() - 1);
    boost::system::error_code ec;
    for (fs::recursive_directory_iterator it(testsupport::root(), ec), end; !ec && it != end; it.increment(ec)) {
        const std::string path = it->path().string();
        bool skipped = path == own || path.compare(0, own.size() + 1, own + "/") == 0;
        for (const char* kept : {"/userdisk/appdata/app_infos", "/userdisk/appdata/local_install_tmp", "/scratch",
                                 "/test-pki", "/tmp/sim-commands.log", "/tmp/sim-mode"}) {
            skipped = skipped || path == underRoot(kept);
        }
        struct stat st;
        lstat(path.c_str(), &st);
        if (skipped || S_ISLNK(st.st_mode)) {
            it.disable_recursion_pending();
        }
        if (skipped) {
            continue;
        }
        std::ostringstream line;
        line << std::oct << st.st_mode;
        if (S_ISREG(st.st_mode)) {
            line << " " << std::hash<std::string>()(readFile(path));
        } else if (S_ISLNK(st.st_mode)) {
            line << " -> " << fs::read_symlink(path).string();
        }
        entries[path] = line.str();
    }
    std::string text;
    for (const auto& entry : entries) {
        text += entry.first + " " + entry.second + "\n";
    }
    return text;
}

// A folder and a root-only file outside every plugin, for links to aim at.
void makeBait() {
    writeFile(underRoot("/bait/secret.txt"), "secret");
    chmod(underRoot("/bait/secret.txt").c_str(), 0600);
}

// Builds `levels` nested folders "d" below dir/deep, each made relative to
// the one above, so that no path is ever spelt out.
void plantDeepTree(const std::string& dir, int levels) {
    datacenter::UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY));
    for (int i = 0; i <= levels && fd.valid(); ++i) {
        const char* name = i == 0 ? "deep" : "d";
        mkdirat(fd.get(), name, 0755);
        fd.reset(openat(fd.get(), name, O_RDONLY | O_DIRECTORY));
    }
    ASSERT_TRUE(fd.valid());
    ASSERT_EQ(0, symlinkat("/no/such/target", fd.get(), "dangling"));
}

// Runs `work` on a thread with a 1 MiB stack, far too small for a walk whose
// depth costs stack on the deep tree.
int onSmallStack(const std::function<int()>& work) {
    struct Call {
        const std::function<int()>* work;
        int result;
    } call{&work, -1};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 1 << 20);
    pthread_t thread;
    const auto run = [](void* arg) -> void* {
        Call* c = static_cast<Call*>(arg);
        c->result = (*c->work)();
        return nullptr;
    };
    if (pthread_create(&thread, &attr, run, &call) == 0) {
        pthread_join(thread, nullptr);
    }
    pthread_attr_destroy(&attr);
    return call.result;
}

// Whatever a failed case left of the deep tree, removed without recursion.
void removeDeepTree(const std::string& dir) {
    const datacenter::UniqueFd fd = datacenter::TreeRemoval::sOpenDirectory(dir);
    std::string error;
    EXPECT_TRUE(!fd.valid() || datacenter::TreeRemoval::sRemoveAt(fd.get(), "deep", error)) << error;
}

std::string corpusDir() {
    return testsupport::sourceDir() + "/tests/data/hostile";
}

}  // namespace

TEST(HostileCorpus, EveryArchiveIsRefusedWithItsCodeAndNothingOutsideChanges) {
    PackageFactory factory;
    makeBait();
    const std::string out = testsupport::makeScratchDir("corpus");
    writeFile(out + "/manifest", PackageFactory::manifestText(PackageSpec()));
    const testsupport::CommandResult made =
        testsupport::runCommand("python3 " + corpusDir() + "/make-corpus.py " + out + "/manifest " + out);
    ASSERT_EQ(0, made.exitStatus);
    // The first run lays out the router's own files; only later runs are compared.
    installplugin("-f " + testsupport::root() + "/missing.qpk");
    std::ifstream list(corpusDir() + "/corpus.txt");
    int cases = 0;
    for (std::string name, code; list >> name;) {
        if (name[0] == '#') {
            std::getline(list, name);
            continue;
        }
        list >> code;
        const std::string before = outsideSnapshot();
        const std::string package = factory.sign(out + "/" + name + ".zip", 0, "developer", name);
        const testsupport::CommandResult result = installplugin("-f " + package);
        EXPECT_TRUE(installs(result, std::stoi(code))) << name << "\n" << result.output;
        EXPECT_EQ(before, outsideSnapshot()) << name;
        // A refused fresh installation leaves no plugin behind.
        EXPECT_FALSE(fs::exists(fs::symlink_status(dataDir() + "etc/manifest"))) << name;
        ++cases;
    }
    EXPECT_EQ(32, cases);
    EXPECT_EQ("secret", readFile(underRoot("/bait/secret.txt")));
    // The absolute entry names a place outside the test root as well.
    EXPECT_FALSE(fs::exists("/tmp/slip4.txt"));
}

// What other zip readers read installs too: the mode of a FIFO (written as a
// plain file, and logged), backslashes of a Windows archiver, a folder marked
// only by the MS-DOS attribute, a stub in front of the archive, junk behind
// it, and sizes in the local header of an entry with a data descriptor.
TEST(HostileCorpus, QuirksOfOtherArchiversInstall) {
    PackageFactory factory;
    const std::string out = testsupport::makeScratchDir("accepted");
    writeFile(out + "/manifest", PackageFactory::manifestText(PackageSpec()));
    ASSERT_EQ(
        0,
        testsupport::runCommand("python3 " + corpusDir() + "/make-corpus.py " + out + "/manifest " + out).exitStatus);
    std::ifstream list(corpusDir() + "/accepted.txt");
    int cases = 0;
    for (std::string name, path; list >> name;) {
        if (name[0] == '#') {
            std::getline(list, name);
            continue;
        }
        list >> path;
        const std::string package =
            factory.sign(out + "/" + name + ".zip", 0, "developer", name + std::to_string(cases));
        const testsupport::CommandResult result = testsupport::runApp("installplugin", "-f " + package, true);
        EXPECT_TRUE(installs(result, 0)) << name << "\n" << result.output;
        EXPECT_EQ(name == "mode-fifo", result.output.find("written as a plain file") != std::string::npos) << name;
        struct stat st;
        ASSERT_EQ(0, lstat((dataDir() + path).c_str(), &st)) << name << ": " << path;
        EXPECT_EQ(path.back() == '/' ? S_IFDIR : S_IFREG, st.st_mode & S_IFMT) << name;
        if (path.back() != '/') {
            const std::string content = readFile(dataDir() + path);
            EXPECT_TRUE(!content.empty() && content.find_first_not_of('x') == std::string::npos) << name;
        }
        ++cases;
    }
    EXPECT_EQ(8, cases);
}

TEST(HostileCorpus, ArchivesFromZip7ZipAndBsdtarInstallWithTheirDirectories) {
    PackageFactory factory;
    const std::string tree = testsupport::makeScratchDir("tooltree");
    writeFile(tree + "/manifest", PackageFactory::manifestText(PackageSpec()));
    writeFile(tree + "/bin/app", "app");
    writeFile(tree + "/www/css/site.css", "body{}");
    fs::create_directories(tree + "/data/empty");
    const std::map<std::string, std::string> tools = {
        {"zip", "zip -qr ../tool-zip.zip manifest bin www data"},
        {"7z", "7z a -tzip -bd ../tool-7z.zip manifest bin www data >/dev/null"},
        {"bsdtar", "bsdtar --format zip -cf ../tool-bsdtar.zip manifest bin www data"},
    };
    for (const auto& tool : tools) {
        const std::string zip = tree + "/../tool-" + tool.first + ".zip";
        ASSERT_EQ(0, testsupport::runCommand("cd " + tree + " && " + tool.second).exitStatus) << tool.first;
        const std::string listing = testsupport::runCommand("unzip -Z1 " + zip).output;
        ASSERT_NE(std::string::npos, listing.find("bin/\n")) << tool.first << " wrote no directory entry";
        const testsupport::CommandResult result = installplugin("-f " + factory.sign(zip, 0, "developer", tool.first));
        EXPECT_TRUE(installs(result, 0)) << tool.first << "\n" << result.output;
        EXPECT_EQ("body{}", readFile(dataDir() + "www/css/site.css")) << tool.first;
        struct stat st;
        ASSERT_EQ(0, stat((dataDir() + "data/empty").c_str(), &st)) << tool.first;
        EXPECT_TRUE(S_ISDIR(st.st_mode));
        EXPECT_EQ(0777u, st.st_mode & 0777) << tool.first;
    }
}

TEST(HostileCorpus, AManifestThatIncludesAnotherFileHasNoId) {
    PackageFactory factory;
    // With includes followed, the id and every other setting would come from a file of the router.
    writeFile(underRoot("/bait/settings.cfg"), PackageFactory::manifestText(PackageSpec()));
    const std::string manifest = "@include \"" + underRoot("/bait/settings.cfg") + "\"\n";
    const std::string zip = factory.rawZip({{"manifest", manifest}, {"bin/app", "app"}}, {}, "include");
    const testsupport::CommandResult result = installplugin("-f " + factory.sign(zip, 0, "developer", "include"));
    EXPECT_TRUE(installs(result, API_GET_PACKAGE_FAILED)) << result.output;
    EXPECT_FALSE(fs::exists(dataDir() + "bin/app"));
}

TEST(HostileCorpus, AFifoGivenAsThePackageFailsInsteadOfHanging) {
    const std::string fifo = testsupport::root() + "/pipe.qpk";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0666));
    const testsupport::CommandResult result = installplugin("-f " + fifo);
    EXPECT_TRUE(installs(result, API_VERIFY_SIGN_FAILED)) << result.output;
}

TEST(HostilePlantedLinks, AnUpgradeNeverWritesThroughALinkThePluginPlanted) {
    PackageFactory factory;
    makeBait();
    PackageSpec v1;
    ASSERT_TRUE(installs(installplugin("-f " + factory.build(v1, "v1")), 0));
    PackageSpec v2 = v1;
    v2.manifest["version"] = "1.0.1";
    v2.files["www/new.html"] = "new";
    struct Plant {
        const char* what;
        std::string link;
        std::string target;
        int code;
    };
    const std::vector<Plant> plants = {
        {"folder of the package", "www", underRoot("/bait"), API_UNZIP_FAILED},
        {"file of the package", "bin/app", underRoot("/bait/secret.txt"), API_UNZIP_FAILED},
        {"folder of the manifest", "etc", underRoot("/bait"), API_UNZIP_MOVE_FAILED},
        // Nothing is written or chmodded through it: no certificate, no record.
        {"the plugin's directory itself", "", underRoot("/bait"), API_UNZIP_FAILED},
    };
    for (const Plant& plant : plants) {
        const std::string link =
            plant.link.empty() ? dataDir().substr(0, dataDir().size() - 1) : dataDir() + plant.link;
        const std::string saved = link + ".saved";
        fs::rename(link, saved);
        fs::create_symlink(plant.target, link);
        const std::string before = outsideSnapshot();
        const testsupport::CommandResult result = installplugin("-f " + factory.build(v2, "v2"));
        EXPECT_TRUE(installs(result, plant.code)) << plant.what << "\n" << result.output;
        EXPECT_EQ(before, outsideSnapshot()) << plant.what;
        fs::remove(link);
        fs::rename(saved, link);
    }
    struct stat st;
    ASSERT_EQ(0, stat(underRoot("/bait/secret.txt").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    EXPECT_EQ("secret", readFile(underRoot("/bait/secret.txt")));
}

TEST(HostilePlantedLinks, ConfigurationFileLinkedOutsideIsNeitherOpenedNorChmodded) {
    PackageFactory factory;
    makeBait();
    ASSERT_TRUE(installs(installplugin("-f " + factory.build(PackageSpec(), "v1")), 0));
    const std::string config = dataDir() + "etc/plugin_config";
    fs::remove(config);
    fs::create_symlink(underRoot("/bait/secret.txt"), config);

    // An upgrade recreates the configuration file only where it is a file of the plugin's own.
    PackageSpec v2;
    v2.manifest["version"] = "1.0.1";
    const std::string before = outsideSnapshot();
    EXPECT_TRUE(installs(installplugin("-f " + factory.build(v2, "v2")), 0));
    EXPECT_EQ(before, outsideSnapshot());

    // A configuration write through the manager refuses the link.
    PluginManager* manager = Singleton<PluginManager>::instance();
    EXPECT_EQ(API_CONFIG_FILE_OPEN_FAILED, manager->setPluginConfigData(kId, "color", "red"));
    std::string value;
    EXPECT_EQ(API_CONFIG_FILE_OPEN_FAILED, manager->getPluginConfigData(kId, "color", value));
    fs::remove(config);
    fs::remove_all(dataDir() + "etc.real");
    fs::rename(dataDir() + "etc", dataDir() + "etc.real");
    fs::create_symlink(underRoot("/bait"), dataDir() + "etc");
    EXPECT_EQ(API_CONFIG_FILE_OPEN_FAILED, manager->setPluginConfigData(kId, "color", "red"));
    EXPECT_EQ(before, outsideSnapshot());

    // Another name of a file outside (a hard link) is neither chmodded nor
    // read: the configuration gets a file of its own.
    fs::remove(dataDir() + "etc");
    fs::rename(dataDir() + "etc.real", dataDir() + "etc");
    fs::create_hard_link(underRoot("/bait/secret.txt"), config);
    EXPECT_EQ(API_SUCCESS, manager->getPluginConfigData(kId, "color", value));
    EXPECT_EQ("", value);
    EXPECT_EQ(before, outsideSnapshot());

    // "etc" swapped for a link and back while the configuration is written:
    // every write lands in the plugin's own folder or nowhere.
    std::atomic<bool> done(false);
    std::thread swapper([&] {
        // The core may make a missing "etc" meanwhile: each step may fail.
        boost::system::error_code ec;
        while (!done) {
            fs::rename(dataDir() + "etc", dataDir() + "etc.real", ec);
            fs::create_symlink(underRoot("/bait"), dataDir() + "etc", ec);
            fs::remove(dataDir() + "etc", ec);
            fs::rename(dataDir() + "etc.real", dataDir() + "etc", ec);
        }
    });
    for (int i = 0; i < 1000; ++i) {
        manager->setPluginConfigData(kId, "color", "red" + std::to_string(i));
    }
    done = true;
    swapper.join();
    EXPECT_EQ(before, outsideSnapshot());

    struct stat st;
    ASSERT_EQ(0, stat(underRoot("/bait/secret.txt").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);
    EXPECT_EQ("secret", readFile(underRoot("/bait/secret.txt")));
    EXPECT_FALSE(fs::exists(underRoot("/bait/plugin_config")));
}

TEST(HostilePlantedLinks, DownloadsAreStagedAwayFromWhatThePluginPlanted) {
    PackageFactory factory;
    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_EQ(API_SUCCESS, manager->installFromLocal(factory.build(PackageSpec(), "v1"), false));
    // A FIFO where the download used to go would block the installing thread for good.
    ASSERT_EQ(0, mkfifo((dataDir() + "korvia.qpk").c_str(), 0666));
    // A link where the staging folder goes is removed, never followed.
    makeBait();
    fs::create_symlink(underRoot("/bait"), underRoot("/userdisk/appdata/local_install_tmp"));
    PackageSpec v2;
    v2.signType = 1;
    v2.signer = "official";
    v2.manifest["version"] = "1.0.1";
    testsupport::HttpTestServer server;
    server.route("/v2.qpk", testsupport::HttpResponse::text(200, readFile(factory.build(v2, "v2"))));
    ASSERT_EQ(API_SUCCESS, manager->upgradeFromServer(kId, server.url("/v2.qpk")));
    ASSERT_TRUE(manager->waitForInstallation(60000));
    datacenter::PluginInfo info;
    manager->getUrlInstallPlugin(info);
    EXPECT_EQ(API_SUCCESS, info.errorCode);
    EXPECT_EQ(fs::fifo_file, fs::symlink_status(dataDir() + "korvia.qpk").type());
    struct stat staging;
    ASSERT_EQ(0, lstat(underRoot("/userdisk/appdata/local_install_tmp").c_str(), &staging));
    EXPECT_TRUE(S_ISDIR(staging.st_mode));
    EXPECT_EQ(0700u, staging.st_mode & 0777);
    EXPECT_EQ(1, std::distance(fs::directory_iterator(underRoot("/bait")), fs::directory_iterator()));
}

TEST(HostileCorpus, ARefusedSignatureIsExplainedInWords) {
    PackageFactory factory;
    PackageSpec spec;
    spec.signer = "expired";
    const std::string package = factory.build(spec, "expired");
    testsupport::LogCapture log;
    EXPECT_EQ(API_VERIFY_SIGN_FAILED, Singleton<PluginManager>::instance()->installFromLocal(package, true));
    EXPECT_TRUE(log.contains("installFromLocal signCode is -5"));
    EXPECT_TRUE(log.contains("installFromLocal package refused: certificate expired or not yet valid"));
}

namespace {

// What a plugin can do to its own tree before `clean`, an upgrade or an
// uninstallation: each step gives its code, the plugin's directory keeps its
// skeleton, and nothing outside it changes.
enum RemovalOp { CLEAN, UPGRADE, UNINSTALL };
struct RemovalCase {
    const char* what;
    std::function<void()> plant;
    std::vector<std::pair<RemovalOp, int>> steps;
};

void runRemovalCases(const std::vector<RemovalCase>& cases) {
    PackageFactory factory;
    makeBait();
    PluginManager* manager = Singleton<PluginManager>::instance();
    PackageSpec v2;
    v2.manifest["version"] = "1.0.1";
    const std::string upgrade = factory.build(v2, "v2");
    for (const RemovalCase& c : cases) {
        ASSERT_EQ(API_SUCCESS, manager->installFromLocal(factory.build(PackageSpec(), "v1"), false)) << c.what;
        writeFile(dataDir() + "cache/added", "added");
        c.plant();
        const std::string before = outsideSnapshot();
        int code = API_SUCCESS;
        for (const auto& step : c.steps) {
            code = step.first == CLEAN     ? onSmallStack([&] { return manager->cleanPlugin(kId); })
                   : step.first == UPGRADE ? manager->installFromLocal(upgrade, false)
                                           : manager->uninstallPlugin(kId);
            EXPECT_EQ(step.second, code) << c.what;
        }
        EXPECT_EQ(before, outsideSnapshot()) << c.what;
        EXPECT_TRUE(fs::is_directory(fs::symlink_status(dataDir() + "bin"))) << c.what;
        EXPECT_EQ(c.steps.back().first != UNINSTALL, exists(dataDir() + "etc/manifest")) << c.what;
        EXPECT_EQ(code != API_SUCCESS, exists(dataDir() + "cache/added")) << c.what;
        EXPECT_FALSE(exists(dataDir() + "deep")) << c.what;
        removeDeepTree(dataDir());
        manager->uninstallPlugin(kId);
    }
    EXPECT_EQ("secret", readFile(underRoot("/bait/secret.txt")));
}

}  // namespace

TEST(HostileRemoval, ARewrittenRecordNeverWidensWhatCleanRemoves) {
    const std::string record = dataDir() + "init_files.record";
    runRemovalCases({
        {"record missing", [&] { fs::remove(record); }, {{CLEAN, API_INIT_FILES_RECORD_FAILED}}},
        // A record that names nothing keeps the directory and its skeleton all the same.
        {"record emptied", [&] { writeFile(record, ""); }, {{CLEAN, API_SUCCESS}}},
        {"record a link to /dev/zero",
         [&] {
             fs::remove(record);
             fs::create_symlink("/dev/zero", record);
         },
         {{CLEAN, API_INIT_FILES_RECORD_FAILED}}},
        {"record a FIFO",
         [&] {
             fs::remove(record);
             ASSERT_EQ(0, mkfifo(record.c_str(), 0666));
         },
         {{CLEAN, API_INIT_FILES_RECORD_FAILED}}},
        {"record a hard link to a file outside",
         [&] {
             fs::remove(record);
             fs::create_hard_link(underRoot("/bait/secret.txt"), record);
         },
         {{CLEAN, API_INIT_FILES_RECORD_FAILED}}},
        {"record above the size limit",
         [&] { fs::resize_file(record, (16u << 20) + 1); },
         {{CLEAN, API_INIT_FILES_RECORD_FAILED}}},
    });
}

// The upgrade records what it can of a deep tree (not the dangling link, not
// the paths too long to use) and does not fail for it; clean, on a small
// stack, removes the levels below the recorded ones, uninstall the rest.
TEST(HostileRemoval, AHundredThousandLevelsAreRecordedCleanedAndUninstalled) {
    runRemovalCases({{"100000 levels and a dangling link",
                      [] { plantDeepTree(dataDir(), 100000); },
                      {{UPGRADE, API_SUCCESS}, {CLEAN, API_SUCCESS}, {UNINSTALL, API_SUCCESS}}}});
}
