// The sandbox scripts' command lines and the capability check, with a
// recording command runner. The capability table itself is what
// `plugincenter capabilities` prints (LifecycleCliTest).
#include <gtest/gtest.h>

#include "Plugin/BinaryPluginManger.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/Golden.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"
#include "unit/Plugin/PluginTestSupport.h"

using datacenter::BinaryPluginManger;
using testsupport::RecordingRunner;
using testsupport::underRoot;

namespace {

const std::string kToken = "0123456789ABCDEF0123456789ABCDEF";

// A stored plugin with `capabilities` and, when not empty, a token.
void putPluginWith(const std::string& id, const std::string& capabilities, const std::string& token) {
    testsupport::putPlugin(id, datacenter::ENABLED);
    std::string text = testsupport::readFile(testsupport::storeManifest(id));
    text += "capability_list = [" + capabilities + "];\n";
    if (!token.empty()) {
        text += "sdk_token = \"" + token + "\";\n";
    }
    testsupport::writeFile(testsupport::storeManifest(id), text);
    testsupport::putPlugin(id, datacenter::ENABLED);
}

}  // namespace

TEST(Sandbox, ScriptsRunWithTheirExactCommandLines) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    const std::string id = "5017400000000000100";
    putPluginWith(id,
                  "\"access_userdata\", \"support_auto_restart\", \"access_proc\", \"access_dev\", "
                  "\"access_cache_dir\", \"support_download\", \"support_usb_disk_mount\", \"unknown\"",
                  kToken);
    runner->answer("getdisk mnt", 0,
                   "/dev/sda1," + underRoot("/extdisks/sda1") + " /dev/sdb1," + underRoot("/extdisks/sdb1"));
    runner->answer("prepare_chroot.sh", 0, "prepared\n");
    std::string output;
    EXPECT_EQ(API_SUCCESS, BinaryPluginManger::prepareChroot(id, output));
    EXPECT_EQ("prepared", output);
    EXPECT_EQ(API_SUCCESS, BinaryPluginManger::removePluginCapbility(id));
    runner->answer("chroot_run_script.sh", 1, "ran\n");
    EXPECT_EQ(API_SUCCESS, manager->chrootRunCommand(id, "ls -l /", output));
    EXPECT_EQ("ran", output);
    EXPECT_EQ(API_SUCCESS, manager->chrootRunScript(id, "/etc/init.sh", output));
    EXPECT_EQ(API_SUCCESS, manager->chrootRunbinary(id, "bin/app --serve", output));

    EXPECT_GOLDEN("lifecycle/sandbox-commands", testsupport::joinLines(runner->commands()));
}

TEST(Sandbox, EmptyOrUnsafeArgumentsRunNothing) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::string output;
    EXPECT_EQ(API_FAILED, BinaryPluginManger::prepareChroot("", output));
    EXPECT_EQ(API_FAILED, manager->chrootRunScript("77", "", output));
    EXPECT_EQ(API_FAILED, manager->chrootRunCommand("", "ls", output));
    EXPECT_EQ(API_FAILED, manager->chrootRunbinary("77", "", output));
    for (const char* id : {"../77", "77;reboot", "a b", ".."}) {
        EXPECT_EQ(API_FAILED, BinaryPluginManger::prepareChroot(id, output)) << id;
        EXPECT_EQ(API_FAILED, manager->chrootRunCommand(id, "ls", output)) << id;
        EXPECT_EQ(API_FAILED, manager->chrootRunScript(id, "x.sh", output)) << id;
        EXPECT_EQ(API_FAILED, manager->chrootRunbinary(id, "app", output)) << id;
        EXPECT_EQ(API_FAILED, manager->umountRemoveChrootFolder(id, output)) << id;
        EXPECT_EQ(API_SUCCESS, BinaryPluginManger::removePluginCapbility(id)) << id;
    }
    // No hot-plugged disk: nothing to unmount; a mount point that is not a
    // plain path never reaches the command line.
    runner->answer("getdisk mnt", 1, "");
    BinaryPluginManger::removeCapability("support_usb_disk_mount", PluginManager::sGetPluginDataPath("77"));
    for (const char* mountPoint :
         {"/extdisks/$(reboot)", "/extdisks/../../etc", "/extdisks/sda1/..", "/./extdisks", "../x"}) {
        BinaryPluginManger::mountHotplugDevice("/d/", 2, mountPoint);
    }
    BinaryPluginManger::mountHotplugDevice("/d/", 1, "/extdisks/sda1");
    EXPECT_EQ((std::vector<std::string>{"getdisk mnt"}), runner->commands());
}

TEST(Sandbox, CapabilityChecksCompareTheTokenThenTheList) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    putPluginWith("5017400000000000100", "\"support_download\", \"access_proc\"", kToken);
    putPluginWith("5017400000000000101", "", "");
    struct Case {
        std::string id;
        std::string token;
        std::string capability;
        ApiErrorCode code;
        bool allowed;
    };
    const std::vector<Case> cases = {
        {"5017400000000000100", kToken, "support_download", API_SUCCESS, true},
        {"5017400000000000100", kToken, "support_vpn_operation", API_SUCCESS, false},
        {"5017400000000000100", kToken, "support_down", API_SUCCESS, false},
        {"5017400000000000100", "FFFF", "support_download", API_TOKEN_MISMATCH, false},
        {"5017400000000000100", "", "support_download", API_TOKEN_MISMATCH, false},
        {"5017400000000000101", "anything", "support_vpn_operation", API_SUCCESS, true},
        {"5017400000000000199", kToken, "support_download", API_CAPABILITY_UNKNOWN_PLUGIN, false},
        {"../5017400000000000100", kToken, "support_download", API_CAPABILITY_UNKNOWN_PLUGIN, false},
        {"", "", "support_download", API_CAPABILITY_UNKNOWN_PLUGIN, false},
    };
    for (const Case& c : cases) {
        bool allowed = !c.allowed;
        EXPECT_EQ(c.code, manager->verifyCapability(c.id, c.token, c.capability, allowed)) << c.id << " " << c.token;
        EXPECT_EQ(c.allowed, allowed) << c.id << " " << c.token << " " << c.capability;
    }

    // The developer plugin's data come from its own manifest, not the store.
    manager->generatePluginSSHManifest("dev_plugin", {"access_userdata"});
    const std::string token = datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(
        PluginManager::sGetPluginRootPath() + PluginManager::sDeveloperSSHInfoManifest, "sdk_token");
    ASSERT_EQ(32u, token.size());
    bool allowed = false;
    EXPECT_EQ(API_SUCCESS, manager->verifyCapability("dev_plugin", token, "access_userdata", allowed));
    EXPECT_TRUE(allowed);
    EXPECT_EQ(API_SUCCESS, manager->verifyCapability("dev_plugin", token, "support_download", allowed));
    EXPECT_FALSE(allowed);
    EXPECT_EQ(API_TOKEN_MISMATCH, manager->verifyCapability("dev_plugin", kToken, "access_userdata", allowed));
    EXPECT_TRUE(runner->commands().empty());
}
