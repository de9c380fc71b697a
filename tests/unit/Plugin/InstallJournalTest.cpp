// The installation lock and the recovery that the core's start-up runs after
// an installer died part-way. Each case starts the manager after arranging
// what a dead installer would have left.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <functional>

#include "Plugin/PluginManager.h"
#include "Plugin/TimeMachineMigration.h"
#include "Plugin/installAction/InstallFromLocal.h"
#include "Plugin/installAction/InstallJournal.h"
#include "Plugin/installAction/UpgradeBackup.h"
#include "common/Singleton.h"
#include "support/LockHolder.h"
#include "support/LogCapture.h"
#include "support/TestSupport.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::exists;
using testsupport::readFile;
using testsupport::underRoot;
using testsupport::writeFile;

namespace {

const std::string kId = "5017400000000000300";

std::string dataDir() {
    return PluginManager::sGetPluginDataPath(kId);
}

// The record of an installer of `id` that died; an upgrade's found the plugin running.
void leaveJournal(bool upgrade, bool freshTree, bool backup = false, bool committed = false,
                  const std::string& id = kId) {
    InstallJournal::Entry entry;
    entry.id = id;
    entry.upgrade = upgrade;
    entry.freshTree = freshTree;
    entry.backup = backup;
    entry.wasEnabled = upgrade;
    entry.committed = committed;
    InstallJournal journal;
    ASSERT_TRUE(journal.tryLock());
    ASSERT_TRUE(journal.record(entry));
}

// A half-unpacked tree, a staged payload and a working folder.
void leaveDebris() {
    writeFile(dataDir() + "bin/app", "half");
    writeFile(dataDir() + "etc/manifest", "plugin_id = \"" + kId + "\";\n");
    writeFile(dataDir() + "verified_korvia.qpk", "payload");
    writeFile(PluginManager::sGetPluginRootPath() + "local_install_tmp/korvia.zip", "zip");
}

}  // namespace

TEST(InstallRecovery, RemovesTheTreeAndPayloadsOfAnInterruptedFreshInstall) {
    leaveDebris();
    writeFile(testsupport::storeManifest(kId), "plugin_id = \"" + kId + "\";\nname = \"x\";\n");
    // A link planted in the tree must be removed, not followed.
    writeFile(underRoot("/outside/keep"), "user data");
    boost::filesystem::create_directory_symlink(underRoot("/outside"), dataDir() + "link");
    leaveJournal(false, true);
    testsupport::LogCapture log;

    Singleton<PluginManager>::instance();

    EXPECT_FALSE(exists(dataDir()));
    EXPECT_FALSE(exists(PluginManager::sGetPluginRootPath() + "local_install_tmp"));
    EXPECT_FALSE(exists(testsupport::storeManifest(kId)));
    EXPECT_FALSE(exists(InstallJournal::sJournalPath()));
    EXPECT_EQ("user data", readFile(underRoot("/outside/keep")));
    EXPECT_TRUE(exists(PluginManager::sGetPluginRootPath()));
    EXPECT_TRUE(log.contains("removed the interrupted installation of plugin " + kId));
    const std::string commands = readFile(underRoot("/tmp/sim-commands.log"));
    EXPECT_NE(std::string::npos, commands.find("chroot_umout.sh " + dataDir() + "\n")) << commands;
}

// An upgrade that died: before it recorded its backup nothing of the old
// version was touched; before its commit point the old version comes back
// (moved files, added names, store record) and starts when it ran before;
// after it the new version stays and only its file record is written.
TEST(InstallRecovery, AnInterruptedUpgradeEndsWithOneCompleteVersion) {
    struct Case {
        bool backup;
        bool committed;
        const char* app;   // bin/app afterwards
        bool added;        // the upgrade's new file is still there
        bool started;      // the controller was asked to start the plugin
        const char* note;  // the log line
        bool cutCopy;      // the kill came while the file record was being copied aside
    };
    const Case cases[] = {
        {false, false, "new", true, false, "stopped before it changed anything", false},
        {true, false, "old", false, true, "was interrupted; the old version is back", false},
        {true, false, "old", false, true, "was interrupted; the old version is back", true},
        {true, true, "new", true, false, "finished the upgrade of plugin", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.note);
        boost::filesystem::remove_all(PluginManager::sGetPluginRootPath());
        boost::filesystem::remove(underRoot("/tmp/sim-commands.log"));
        testsupport::putPlugin(kId, datacenter::DISABLED);
        writeFile(dataDir() + "bin/app", "old");
        writeFile(dataDir() + "userdata/notes", "runtime data");
        writeFile(dataDir() + "init_files.record", "old record\n");
        const std::string store = readFile(testsupport::storeManifest(kId));
        {
            UpgradeBackup backup(kId);
            ASSERT_TRUE(c.backup ? backup.begin() : true);
            ASSERT_TRUE(!c.backup || (backup.beforeFile("bin/app") && backup.beforeDirectory("new")));
            ASSERT_TRUE(!c.backup || backup.beforeFile("new/file"));
        }
        if (c.cutCopy) {
            // What a copy cut short leaves: part of it, under its working name.
            const std::string copy =
                PluginManager::sGetPluginRootPath() + UpgradeBackup::sFolderName(kId) + "/init_files.record";
            boost::filesystem::remove(copy);
            writeFile(copy + ".part", "old");
        }
        writeFile(dataDir() + "bin/app", "new");
        writeFile(dataDir() + "new/file", "added");
        writeFile(testsupport::storeManifest(kId), "plugin_id = \"" + kId + "\";\nstatus = \"2\";\n");
        leaveJournal(true, false, c.backup, c.committed);
        testsupport::LogCapture log;
        std::string restart;
        EXPECT_TRUE(InstallJournal::sRecover(&restart));

        EXPECT_EQ(c.app, readFile(dataDir() + "bin/app"));
        EXPECT_EQ(c.added, exists(dataDir() + "new"));
        EXPECT_EQ("runtime data", readFile(dataDir() + "userdata/notes"));
        EXPECT_EQ(c.started ? kId : "", restart);
        if (c.backup && !c.committed) {
            EXPECT_EQ(store, readFile(testsupport::storeManifest(kId)));
        }
        EXPECT_EQ(!c.committed, readFile(dataDir() + "init_files.record") == "old record\n");
        EXPECT_FALSE(exists(PluginManager::sGetPluginRootPath() + "local_install_tmp"));
        EXPECT_FALSE(exists(InstallJournal::sJournalPath()));
        EXPECT_TRUE(log.contains(c.note));
    }
}

// The time machine's upgrade moved its backups out of its tree, then died
// before its commit: the old version comes back with its data where it was.
TEST(InstallRecovery, AnInterruptedUpgradeOfTheTimeMachineMovesItsDataBack) {
    const std::string id = TimeMachineInfo::getPluginId();
    const std::string tree = PluginManager::sGetPluginDataPath(id);
    testsupport::putPlugin(id, datacenter::ENABLED);
    writeFile(tree + "userdisk/timecapsule/backup.img", "the user's backup");
    writeFile(tree + "userdisk/afp/share/file", "the user's share");
    boost::filesystem::create_directories(underRoot("/userdisk/data"));
    {
        UpgradeBackup backup(id);
        ASSERT_TRUE(backup.begin());
        ASSERT_TRUE(backup.noteTimeMachine(TimeMachineMove::sBefore().text()));
    }
    // What the migration does: the backups go to the user disk, the share into them.
    boost::filesystem::rename(tree + "userdisk/timecapsule", timecapsuleNewdir());
    boost::filesystem::rename(tree + "userdisk/afp", afpNewdir());
    leaveJournal(true, false, true, false, id);

    EXPECT_TRUE(InstallJournal::sRecover(nullptr));

    EXPECT_EQ("the user's backup", readFile(tree + "userdisk/timecapsule/backup.img"));
    EXPECT_EQ("the user's share", readFile(tree + "userdisk/afp/share/file"));
    EXPECT_FALSE(exists(timecapsuleNewdir()));
    EXPECT_FALSE(exists(PluginManager::sGetPluginRootPath() + "local_install_tmp"));
}

TEST(InstallRecovery, KeepsAFolderThatExistedBeforeButDropsItsManifest) {
    leaveDebris();
    writeFile(dataDir() + "userdata/photo", "mine");
    leaveJournal(false, false);

    Singleton<PluginManager>::instance();

    EXPECT_EQ("mine", readFile(dataDir() + "userdata/photo"));
    EXPECT_FALSE(exists(dataDir() + "etc/manifest"));
    EXPECT_FALSE(exists(dataDir() + "verified_korvia.qpk"));
}

TEST(InstallRecovery, NeverTouchesWhatALiveInstallerWorksOn) {
    leaveDebris();
    leaveJournal(false, true);
    testsupport::LockHolder installer(InstallJournal::sLockPath());
    ASSERT_TRUE(installer.held());

    Singleton<PluginManager>::instance();
    EXPECT_EQ("half", readFile(dataDir() + "bin/app"));
    EXPECT_TRUE(exists(dataDir() + "verified_korvia.qpk"));
    EXPECT_TRUE(exists(InstallJournal::sJournalPath()));

    // While that installer runs, installations here are refused at once, without writing.
    const std::string package = underRoot("/pkg.qpk");
    writeFile(package, "not even a package");
    EXPECT_EQ(API_INSTALL_IN_PROGRESS, Singleton<PluginManager>::instance()->installFromLocal(package, true));
    EXPECT_EQ(API_INSTALL_IN_PROGRESS,
              Singleton<PluginManager>::instance()->installFromServer("5017400000000000301", "http://127.0.0.1:1/x"));
    EXPECT_EQ(API_INSTALL_IN_PROGRESS, Singleton<PluginManager>::instance()->installFromUrl("http://127.0.0.1:1/x"));
    EXPECT_FALSE(exists(PluginManager::sGetPluginDataPath("5017400000000000301")));

    // Once it is gone (the kernel drops its lock), the next start finishes its job.
    installer.release();
    EXPECT_TRUE(InstallJournal::sRecover());
    EXPECT_FALSE(exists(dataDir()));
    EXPECT_FALSE(InstallJournal::sRecover());
}

// Removal in recovery stays strictly below the plugin root, whatever path
// it is handed.
TEST(InstallRecovery, PathsOutsideThePluginRootAreNeverRemoved) {
    const std::string root = PluginManager::sGetPluginRootPath();
    writeFile(underRoot("/userdisk/precious"), "keep");
    writeFile(root + "x/file", "keep too");
    for (const std::string& path : {underRoot("/userdisk/precious"), root, root + "x/../../precious", root + "..",
                                    root + "x/../x", root + "./x", underRoot("/userdisk/appdata2/x"), std::string()}) {
        InstallJournal::sRemoveBelowRoot(path);
        EXPECT_EQ("keep", readFile(underRoot("/userdisk/precious"))) << path;
        EXPECT_EQ("keep too", readFile(root + "x/file")) << path;
    }
    InstallJournal::sRemoveBelowRoot(root + "x/file");
    EXPECT_FALSE(exists(root + "x/file"));
    EXPECT_TRUE(exists(root + "x"));
}

// The record holds an id and flags: an unsafe id, or an id the store lists as
// installed with the flags of a fresh installation, leaves every plugin file
// and record as it is; only the installer's own folder goes.
TEST(InstallRecovery, TheRecordNeverReachesBeyondItsOwnPlugin) {
    const std::string root = PluginManager::sGetPluginRootPath();
    testsupport::putPlugin(kId, datacenter::ENABLED);
    writeFile(dataDir() + "bin/app", "installed");
    writeFile(root + "keep/file", "keep");
    for (const std::string& text : std::vector<std::string>{
             "id ../keep\nupgrade 0\nfresh_tree 1\nstaged " + root + "keep\n",
             "id " + kId + "\nupgrade 0\nfresh_tree 1\n", "id app_infos\nupgrade 0\nfresh_tree 1\n",
             "id " + kId + "\nupgrade 0\nfresh_tree 0\n"}) {
        writeFile(root + "local_install_tmp/korvia.zip", "zip");
        const std::string before = testsupport::treeText(underRoot("/userdisk"));
        ASSERT_TRUE(InstallJournal::sEnsurePrivateDir());
        writeFile(InstallJournal::sJournalPath(), text);
        EXPECT_TRUE(InstallJournal::sRecover()) << text;
        EXPECT_FALSE(exists(root + "local_install_tmp")) << text;
        writeFile(root + "local_install_tmp/korvia.zip", "zip");
        EXPECT_EQ(before, testsupport::treeText(underRoot("/userdisk"))) << text;
        EXPECT_EQ(datacenter::ENABLED, testsupport::storedStatus(kId)) << text;
        EXPECT_FALSE(exists(InstallJournal::sJournalPath())) << text;
    }
}

TEST(InstallLock, OneHolderAtATimeAndFreedWithItsHolder) {
    Singleton<PluginManager>::instance();
    InstallJournal first;
    InstallJournal second;
    ASSERT_TRUE(first.tryLock());
    EXPECT_FALSE(second.tryLock());
    first.unlock();
    EXPECT_TRUE(second.tryLock());
    second.unlock();
    // A link planted in place of the lock file is not followed.
    boost::filesystem::remove(InstallJournal::sLockPath());
    writeFile(underRoot("/target"), "untouched");
    boost::filesystem::create_symlink(underRoot("/target"), InstallJournal::sLockPath());
    EXPECT_FALSE(first.tryLock());
    EXPECT_EQ("untouched", readFile(underRoot("/target")));
}

// The private state lives in a folder of its own below "/data/etc/datacenter/",
// whose parent also holds the privacy white list other programs read: the
// parent keeps its owner and mode, the state folder is the core's, 0700, and
// what stands in its way is refused with its own code, not "installing".
TEST(PrivateState, TheStateFolderIsTheCoresOwnAndItsParentIsLeftAlone) {
    const std::string parent = underRoot("/data/etc/datacenter");
    const std::string state = parent + "/state";
    struct Case {
        const char* name;
        std::function<void()> plant;
        bool usable;
        bool needsRoot;  // gives a folder to another user
    };
    const std::vector<Case> cases{
        {"a parent of another owner and mode, with the white list",
         [&] {
             boost::filesystem::create_directories(parent);
             writeFile(parent + "/whitelist", "app");
             ASSERT_EQ(0, chown(parent.c_str(), 4321, 4321));
             ASSERT_EQ(0, chmod(parent.c_str(), 0751));
         },
         true, true},
        {"a state folder open to all",
         [&] {
             boost::filesystem::create_directories(state);
             chmod(state.c_str(), 0777);
         },
         true, false},
        {"a link in place of the state folder",
         [&] {
             boost::filesystem::create_directories(parent);
             boost::filesystem::create_directory_symlink(underRoot("/elsewhere"), state);
         },
         false, false},
        {"a link in place of the parent",
         [&] {
             boost::filesystem::create_directories(underRoot("/data/etc"));
             boost::filesystem::create_directory_symlink(underRoot("/elsewhere"), parent);
         },
         false, false},
        {"a state folder of another user",
         [&] {
             boost::filesystem::create_directories(state);
             ASSERT_EQ(0, chown(state.c_str(), 4321, 4321));
         },
         false, true},
    };
    Singleton<PluginManager>::instance();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.needsRoot && geteuid() != 0) {
            continue;
        }
        boost::filesystem::remove_all(underRoot("/data"));
        boost::filesystem::remove_all(underRoot("/elsewhere"));
        boost::filesystem::create_directory(underRoot("/elsewhere"));
        c.plant();
        struct stat before {};
        lstat(parent.c_str(), &before);
        InstallJournal journal;
        InstallJournal::Entry entry;
        entry.id = kId;
        EXPECT_EQ(c.usable, journal.tryLock());
        EXPECT_EQ(c.usable, journal.record(entry));
        journal.unlock();
        const ApiErrorCode code = Singleton<PluginManager>::instance()->installFromLocal(underRoot("/none.qpk"), false);
        EXPECT_EQ(c.usable ? API_PACKAGE_NOT_EXIST : API_GENERAL_FAILURE, code);
        struct stat after {};
        lstat(parent.c_str(), &after);
        EXPECT_EQ(before.st_mode, after.st_mode);
        EXPECT_EQ(before.st_uid, after.st_uid);
        EXPECT_EQ("", testsupport::treeText(underRoot("/elsewhere")));
        if (c.usable) {
            struct stat st;
            ASSERT_EQ(0, lstat(state.c_str(), &st));
            EXPECT_EQ(040700u, st.st_mode);
            EXPECT_EQ(geteuid(), st.st_uid);
        }
    }
    boost::filesystem::remove_all(underRoot("/data"));
}

// A journal an older version left beside the white list moves into the state
// folder, and recovery finds it there.
TEST(PrivateState, AJournalLeftAtTheFormerPlaceIsRecovered) {
    testsupport::putPlugin(kId, datacenter::ENABLED);
    writeFile(dataDir() + "bin/app", "installed");
    writeFile(dataDir() + "bin/half", "half");
    boost::filesystem::remove_all(underRoot("/data"));
    writeFile(underRoot("/data/etc/datacenter/install.journal"), "id " + kId + "\nupgrade 1\nfresh_tree 0\n");
    chmod(underRoot("/data/etc/datacenter").c_str(), 0700);
    EXPECT_TRUE(InstallJournal::sRecover());
    EXPECT_FALSE(exists(underRoot("/data/etc/datacenter/install.journal")));
    EXPECT_FALSE(exists(InstallJournal::sJournalPath()));
    EXPECT_EQ("installed", readFile(dataDir() + "bin/app"));
}

// An uninstallation that died after its store record went (a power cut, a
// kill) is finished by the next start: the files go, down to the skeleton.
TEST(InstallRecovery, AnUninstallationThatDiedIsFinishedByTheNextStart) {
    writeFile(dataDir() + "www/index.html", "installed");
    writeFile(dataDir() + "etc/manifest", "plugin_id = \"" + kId + "\";\n");
    ASSERT_TRUE(InstallJournal::sEnsurePrivateDir());
    InstallJournal journal{InstallJournal::ForUninstall()};
    InstallJournal::Entry entry;
    entry.id = kId;
    entry.uninstall = true;
    ASSERT_TRUE(journal.record(entry));
    const std::string record = journal.journalPath();
    journal.unlock();  // the uninstalling process is gone
    Singleton<PluginManager>::instance();
    EXPECT_FALSE(exists(dataDir() + "www"));
    EXPECT_FALSE(exists(dataDir() + "etc"));
    EXPECT_FALSE(exists(record));
    EXPECT_FALSE(exists(InstallJournal::sJournalPath()));
}
