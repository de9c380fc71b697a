// Real chroot sandboxes made by the stand-ins of sim/bin. The whole binary
// runs in a private mount namespace (sim/sandbox-shell, see tests/CMakeLists):
// the mounts made here never reach the host and end with the process. The
// plugin program is the probe (SandboxProbe.cpp), which reports from inside
// its chroot what it can reach.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <sstream>

#include "Plugin/BinaryPluginManger.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "storage/TreeRemoval.h"
#include "support/PackageFactory.h"
#include "support/PluginStopCases.h"
#include "support/TestSupport.h"
#include "system/ConfigInfo.h"

namespace fs = boost::filesystem;
using testsupport::PackageFactory;
using testsupport::PackageSpec;
using testsupport::readFile;
using testsupport::runCommand;
using testsupport::underRoot;
using testsupport::writeFile;

namespace {

const std::string kSeeing = "5017400000000000201";  // user disk, proc, USB disks, cache folder
const std::string kBlind = "5017400000000000202";   // rights only

std::string simBin() {
    return testsupport::sourceDir() + "/sim/bin";
}

// Why the stand-ins would not mount for `root`; empty when they would.
std::string refusal(const std::string& root = testsupport::root(), const std::string& env = "") {
    return runCommand("DATACENTER_ROOT='" + root + "' " + env + " sh -c '. " + simBin() +
                      "/sim-lib.sh; sim_sandbox_refusal'")
        .output;
}

#define SKIP_WITHOUT_MOUNTS()                                                                            \
    do {                                                                                                 \
        const std::string reason = refusal();                                                            \
        if (!reason.empty()) {                                                                           \
            GTEST_SKIP() << "mounts are not possible here (" << reason.substr(0, reason.size() - 1)      \
                         << "): the sandbox tests need root on Linux and run through sim/sandbox-shell"; \
        }                                                                                                \
    } while (0)

// Mount point -> options of every mount at `dir` or below it.
std::map<std::string, std::string> mountsBelow(const std::string& dir) {
    const std::string canonical = fs::canonical(dir).string();
    std::map<std::string, std::string> mounts;
    std::istringstream table(readFile("/proc/self/mountinfo"));
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, source, point, options;
        fields >> id >> parent >> device >> source >> point >> options;
        if (point == canonical || point.compare(0, canonical.size() + 1, canonical + "/") == 0) {
            mounts[point] = options;
        }
    }
    return mounts;
}

// Every regular file below `dir` with its content.
std::map<std::string, std::string> filesBelow(const std::string& dir) {
    std::map<std::string, std::string> files;
    for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
        if (fs::is_regular_file(it->symlink_status())) {
            files[it->path().string()] = readFile(it->path().string());
        }
    }
    return files;
}

// The probe's report without its pid line.
std::string report(const std::string& dir) {
    const std::string text = readFile(dir + "tmp/probe-report");
    return text.substr(0, text.find("pid "));
}

std::string probePid(const std::string& dir) {
    const std::string text = readFile(dir + "tmp/probe-report");
    const size_t at = text.find("pid ");
    return at == std::string::npos ? std::string("0") : text.substr(at + 4, text.find('\n', at) - at - 4);
}

bool waitForFile(const std::string& path) {
    return testsupport::waitUntil([&path] { return fs::exists(path); });
}

std::string tool(const std::string& name, const std::string& args) {
    const testsupport::CommandResult result = runCommand(
        "DATACENTER_INSTALLPLUGIN_DELAY_MS=0 " + testsupport::buildDir() + "/apps/" + name + " " + args + " 2>&1");
    return std::to_string(result.exitStatus) + " " + result.output;
}

void installProbe(PackageFactory& factory, const std::string& id, const std::string& capabilities) {
    PackageSpec spec;
    spec.id = id;
    spec.manifest["binary_name"] = "bin/probe";
    spec.files = {{"bin/probe", readFile(DC_SANDBOX_PROBE)}};
    spec.files["manifest"] = PackageFactory::manifestText(spec) + "capability_list = [" + capabilities + "];\n";
    const std::string result = tool("installplugin", "-f " + factory.build(spec, id));
    ASSERT_EQ('0', result[0]) << result;
}

// The router's own files a walk through a sandbox mount could reach: the
// user's and the core's files on the disk with their content, and which
// files lie at the top of the core's plugin folder (the pid file changes at
// every start). The store records change with the plugin's status.
std::map<std::string, std::string> routerFiles() {
    std::map<std::string, std::string> files;
    for (const char* dir : {"/userdisk/data", "/userdisk/datacenterConfig"}) {
        const std::map<std::string, std::string> below = filesBelow(underRoot(dir));
        files.insert(below.begin(), below.end());
    }
    for (fs::directory_iterator it(underRoot("/userdisk/appdata")), end; it != end; ++it) {
        if (fs::is_regular_file(it->symlink_status())) {
            files[it->path().string()] = "";
        }
    }
    return files;
}

}  // namespace

// Two plugins, one with the mounting capabilities and one with rights only,
// run chrooted in their data directories; then the hot-plug disk goes away
// under a busy plugin and both are uninstalled.
TEST(Sandbox, CapabilitiesDecideWhatAChrootedPluginSeesAndUninstallKeepsTheDisks) {
    SKIP_WITHOUT_MOUNTS();
    const std::string root = testsupport::root();
    testsupport::layOutRouter(root);
    PackageFactory factory;
    writeFile(underRoot("/extdisks/sda1/movie"), "movie");
    writeFile(underRoot("/sim/getdisk/mnt"), "/dev/sda1," + root + "/extdisks/sda1\n");
    writeFile(underRoot("/userdisk/data/.cache_dir/cached.bin"), "cached");
    const std::map<std::string, std::string> disks = filesBelow(underRoot("/userdisk/data"));
    const std::map<std::string, std::string> usb = filesBelow(underRoot("/extdisks"));

    installProbe(factory, kSeeing,
                 "\"access_userdata\", \"access_proc\", \"access_cache_dir\", \"support_usb_disk_mount\"");
    installProbe(factory, kBlind, "\"support_download\"");
    const std::string seeing = PluginManager::sGetPluginDataPath(kSeeing);
    const std::string blind = PluginManager::sGetPluginDataPath(kBlind);
    ASSERT_TRUE(waitForFile(seeing + "tmp/probe-report")) << readFile(underRoot("/tmp/sim-plugin-" + kSeeing + ".log"));
    ASSERT_TRUE(waitForFile(blind + "tmp/probe-report")) << readFile(underRoot("/tmp/sim-plugin-" + kBlind + ".log"));
    // The user's files are seen, the core's own state on the disk is not.
    EXPECT_EQ("userdata sees\nproc sees\nusb sees\nlib refused\nappdata hidden\n", report(seeing));
    EXPECT_EQ("userdata none\nproc none\nusb none\nlib refused\nappdata hidden\n", report(blind));

    // A plugin that writes a capability into its own manifest does not get
    // it at its next start: the store record decides, and the copy is restored.
    const std::string manifest = readFile(blind + "etc/manifest");
    writeFile(blind + "etc/manifest",
              manifest.substr(0, manifest.find("capability_list")) + "capability_list = [\"access_userdata\"];\n");
    fs::remove(blind + "tmp/probe-report");
    EXPECT_EQ('0', tool("plugincenter", "disable " + kBlind)[0]);
    EXPECT_EQ('0', tool("plugincenter", "enable " + kBlind)[0]);
    ASSERT_TRUE(waitForFile(blind + "tmp/probe-report"));
    EXPECT_EQ("userdata none\nproc none\nusb none\nlib refused\nappdata hidden\n", report(blind));
    const std::string restored = readFile(blind + "etc/manifest");
    EXPECT_EQ(std::string::npos, restored.find("access_userdata")) << restored;
    EXPECT_NE(std::string::npos, restored.find("support_download")) << restored;

    // Pids in the pid file: a sandboxed process is its plugin's (its root is
    // the plugin's directory); the other plugin's process listed for it is not.
    const std::string blindPid = probePid(blind);
    const std::string seeingPid = probePid(seeing);
    datacenter::ConfigInfo::sGetInstance()->setConfigToFile(PluginManager::sGetPluginPidConfig(), "pid_of_" + kBlind,
                                                            seeingPid + ";" + blindPid);
    std::unique_ptr<AbsPlugin>(Singleton<PluginManager>::instance()->createPlugin(kBlind))->killProcesses();
    EXPECT_TRUE(fs::exists("/proc/" + seeingPid + "/root"));
    EXPECT_TRUE(testsupport::waitUntil([&] { return !fs::exists("/proc/" + blindPid + "/root"); }));
    EXPECT_EQ("sandbox", readFile(underRoot("/tmp/sim-mode")).substr(0, 7));
    // The plugin was already running when its files were recorded: nothing mounted is among them.
    const std::string record = readFile(seeing + "init_files.record");
    EXPECT_NE(std::string::npos, record.find(seeing + "etc/manifest\n"));
    for (const char* mounted : {"/lib/", "/userdata/", "/proc/", "/extdisks/", "/tmp/"}) {
        EXPECT_EQ(std::string::npos, record.find(seeing + (mounted + 1))) << mounted;
    }

    // The USB disk leaves while the plugin holds a file of it open: only a
    // lazy unmount ("umount -lfd") takes it out of the sandbox at once.
    const std::string usbPoint = fs::canonical(seeing).string() + "/extdisks/sda1";
    ASSERT_EQ(1u, mountsBelow(seeing).count(usbPoint));
    datacenter::BinaryPluginManger::removeCapability("support_usb_disk_mount", seeing);
    EXPECT_EQ(0u, mountsBelow(seeing).count(usbPoint));
    EXPECT_EQ(1u, mountsBelow(seeing).count(fs::canonical(seeing).string() + "/userdata"));

    // Uninstalling walks the plugin's directory: the user disk, the cache
    // folder and the libraries bound into it must be gone from it by then.
    const std::string result = tool("plugincenter", "uninstall " + kSeeing);
    EXPECT_EQ('0', result[0]) << result;
    EXPECT_TRUE(mountsBelow(seeing).empty());
    EXPECT_EQ(disks, filesBelow(underRoot("/userdisk/data")));
    EXPECT_EQ(usb, filesBelow(underRoot("/extdisks")));
    EXPECT_FALSE(mountsBelow(blind).empty());
    EXPECT_EQ('0', tool("plugincenter", "uninstall " + kBlind)[0]);
    EXPECT_TRUE(mountsBelow(root).empty());
}

// The safety rules of the stand-ins: never the host's root, never outside the
// namespace that sim/sandbox-shell made nor in one whose mounts propagate,
// host folders only read-only, everything unmounted again.
TEST(Sandbox, StandInsRefuseUnsafeRootsAndNamespacesAndBindHostFoldersReadOnly) {
    SKIP_WITHOUT_MOUNTS();
    const std::string root = testsupport::makeScratchDir("router");
    testsupport::layOutRouter(root);
    const std::string dir = root + "/userdisk/appdata/7/";
    fs::create_directories(dir);
    const std::string prepare = simBin() + "/prepare_chroot.sh " + dir + " " + root + "/userdisk/appdata/";

    for (const char* unsafe : {"", "/", "//", "/."}) {
        EXPECT_NE(0, runCommand("DATACENTER_ROOT='" + std::string(unsafe) + "' " + prepare + " 2>/dev/null").exitStatus)
            << "'" << unsafe << "'";
    }
    EXPECT_TRUE(mountsBelow(root).empty());

    // Outside the namespace of sim/sandbox-shell: folders and the log line only, said once.
    const std::string env = "DATACENTER_ROOT=" + root + " ";
    const std::string note =
        "sim: logging mode (not started by sim/sandbox-shell): the sandbox scripts log and make folders, "
        "nothing is mounted\n";
    EXPECT_EQ(note, runCommand(env + "env -u DC_SIM_MNT_NS " + prepare + " 2>&1").output);
    EXPECT_EQ("", runCommand(env + "env -u DC_SIM_MNT_NS " + prepare + " 2>&1").output);
    std::string here = runCommand("readlink /proc/self/ns/mnt").output;
    here.pop_back();
    EXPECT_EQ("sim/sandbox-shell made no new mount namespace\n", refusal(root, "DC_SIM_OUTER_NS='" + here + "'"));
    EXPECT_EQ("not in the mount namespace sim/sandbox-shell made\n", refusal(root, "DC_SIM_MNT_NS='mnt:[1]'"));
    EXPECT_TRUE(mountsBelow(root).empty());
    EXPECT_TRUE(fs::is_directory(dir + "lib"));

    // A shared mount would carry mounts out of the namespace.
    fs::create_directories(root + "/shared");
    ASSERT_EQ(
        0,
        runCommand("mount -t tmpfs shared " + root + "/shared && mount --make-shared " + root + "/shared").exitStatus);
    EXPECT_EQ("mounts of this namespace still propagate (shared)\n", refusal(root));
    EXPECT_EQ(0, runCommand("umount " + root + "/shared").exitStatus);
    EXPECT_EQ("", refusal(root));

    // In the namespace: the host's library folder bound read-only, and gone after chroot_umout.sh.
    ASSERT_EQ(0, runCommand(env + prepare).exitStatus);
    const std::map<std::string, std::string> binds = mountsBelow(dir);
    ASSERT_EQ(1u, binds.size());
    EXPECT_EQ("ro,", binds.at(fs::canonical(dir).string() + "/lib").substr(0, 3));
    EXPECT_NE(0, runCommand("touch " + dir + "lib/written 2>/dev/null").exitStatus);
    EXPECT_FALSE(fs::exists("/lib/written"));
    EXPECT_EQ(0, runCommand(env + simBin() + "/chroot_umout.sh " + dir).exitStatus);
    EXPECT_TRUE(mountsBelow(root).empty());
}

// A running sandboxed plugin that rewrites its record, and an unmount script
// that fails: `clean` and uninstall never walk through the mounts of the
// sandbox, and uninstall deletes nothing while a mount remains.
TEST(Sandbox, CleanAndUninstallNeverWalkThroughTheSandboxMounts) {
    SKIP_WITHOUT_MOUNTS();
    testsupport::layOutRouter(testsupport::root());
    PackageFactory factory;
    writeFile(underRoot("/userdisk/data/.cache_dir/cached.bin"), "cached");
    installProbe(factory, kSeeing, "\"access_userdata\", \"access_proc\", \"access_cache_dir\"");
    const std::string dir = PluginManager::sGetPluginDataPath(kSeeing);
    ASSERT_TRUE(waitForFile(dir + "tmp/probe-report")) << readFile(underRoot("/tmp/sim-plugin-" + kSeeing + ".log"));
    const std::map<std::string, std::string> router = routerFiles();
    const std::map<std::string, std::string> mounts = mountsBelow(dir);
    ASSERT_EQ(1u, mounts.count(fs::canonical(dir).string() + "/cache_dir"));
    const std::string record = dir + "init_files.record";
    const std::string manifest = dir + "etc/manifest";
    struct Step {
        const char* what;
        std::function<void()> plant;
        std::string command;
        std::string result;  // exit status and the code of a failure
    };
    const std::vector<Step> steps = {
        {"record emptied", [&] { writeFile(record, ""); }, "clean", "0"},
        {"record a link to /dev/urandom",
         [&] {
             fs::remove(record);
             fs::create_symlink("/dev/urandom", record);
         },
         "clean", "1 code 1081"},
        {"unmount script fails", [&] { writeFile(underRoot("/sim/chroot_umout.sh/run.exit"), "1\n"); }, "uninstall",
         "1 code 2502"},
    };
    for (const Step& step : steps) {
        step.plant();
        const std::string result = tool("plugincenter", step.command + " " + kSeeing);
        const size_t code = result.find("code ");
        EXPECT_EQ(step.result, result.substr(0, 1) + (code == std::string::npos ? "" : " " + result.substr(code, 9)))
            << step.what << ": " << result;
        EXPECT_EQ(router, routerFiles()) << step.what;
        EXPECT_EQ(mounts, mountsBelow(dir)) << step.what;
        EXPECT_TRUE(fs::exists(manifest)) << step.what;
    }
    EXPECT_TRUE(fs::exists(underRoot("/userdisk/appdata/app_infos/" + kSeeing + ".manifest")));

    fs::remove(underRoot("/sim/chroot_umout.sh/run.exit"));
    EXPECT_EQ('0', tool("plugincenter", "uninstall " + kSeeing)[0]);
    EXPECT_TRUE(mountsBelow(dir).empty());
    EXPECT_FALSE(fs::exists(manifest));
    EXPECT_EQ(router, routerFiles());
}

// The stop cases of the e2e suite, with the plugin chrooted.
TEST(Sandbox, EveryProcessOfASandboxedPluginEndsAndNothingForgesItsRecord) {
    SKIP_WITHOUT_MOUNTS();
    testsupport::runPluginStopCases();
}

// The removal walk meets mounts it did not expect (another file system, or
// a bind mount of its own): it leaves them, and the folders holding them.
// Where the kernel gives no mount ids, the device number alone still keeps
// another file system.
TEST(Sandbox, TheRemovalWalkLeavesEveryMountPointInPlace) {
    SKIP_WITHOUT_MOUNTS();
    const std::string dir = PluginManager::sGetPluginDataPath("7");
    const std::string outside = testsupport::makeScratchDir("bound");
    const std::map<std::string, std::string> kinds = {
        {"bind mount of the same file system", "mount --bind " + outside},
        {"another file system", "mount -t tmpfs walled"},
        {"another file system, no mount ids", "mount -t tmpfs walled"},
    };
    for (const auto& kind : kinds) {
        datacenter::TreeRemoval::sPretendNoMountIds(kind.first.find("no mount ids") != std::string::npos);
        const std::string point = dir + "junk/inner";
        fs::create_directories(point);
        writeFile(dir + "junk/file", "goes");
        writeFile(dir + "etc/manifest", "stays");
        ASSERT_EQ(0, runCommand(kind.second + " " + point).exitStatus) << kind.first;
        writeFile(point + "/held", "held");
        EXPECT_EQ(API_SUCCESS, Singleton<PluginManager>::instance()->cleanPluginImpl("7")) << kind.first;
        EXPECT_EQ("held", readFile(point + "/held")) << kind.first;
        EXPECT_FALSE(fs::exists(dir + "junk/file")) << kind.first;
        EXPECT_EQ("stays", readFile(dir + "etc/manifest")) << kind.first;
        EXPECT_EQ(0, runCommand("umount " + point).exitStatus) << kind.first;
    }
    datacenter::TreeRemoval::sPretendNoMountIds(false);
    EXPECT_EQ("held", readFile(outside + "/held"));
}
