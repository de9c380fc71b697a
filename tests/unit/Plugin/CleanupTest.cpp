#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <iostream>
#include <vector>

#include "Plugin/PluginManager.h"
#include "Plugin/TimeMachineMigration.h"
#include "common/Singleton.h"
#include "support/Golden.h"
#include "support/LogCapture.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::exists;
using testsupport::RecordingRunner;
using testsupport::underRoot;
using testsupport::writeFile;

TEST(CleanPlugin, EmptiesTheDirectoryDownToTheSandboxSkeleton) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    const std::string dir = PluginManager::sGetPluginDataPath("77");
    for (const char* kept : {"bin/sh", "lib/libc.so", "userdata/photo", "extdisks/sda1/x", "etc/TZ", "etc/group",
                             "etc/manifest", "etc/passwd", "etc/plugin_config"}) {
        writeFile(dir + kept, "keep");
    }
    for (const char* removed : {"app", "www/index.html", "etc/other.conf", "usr/lib/x.so", "tmp/t"}) {
        writeFile(dir + removed, "remove");
    }
    writeFile(underRoot("/outside/secret"), "secret");
    boost::filesystem::create_directory_symlink(underRoot("/outside"), dir + "usr/link");

    EXPECT_EQ(API_SUCCESS, manager->cleanPluginImpl("77"));
    EXPECT_GOLDEN("cleanup/clean-plugin-tree", testsupport::treeText(dir));
    EXPECT_EQ("secret", testsupport::readFile(underRoot("/outside/secret")));

    EXPECT_EQ(API_GENERAL_FAILURE, manager->cleanPluginImpl("78"));
    EXPECT_EQ(API_GENERAL_FAILURE, manager->cleanPluginImpl(""));
}

TEST(CleanPlugin, AStoppedWalkIsReportedInTheLogAndOnStandardOutput) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    const std::string dir = PluginManager::sGetPluginDataPath("79");
    writeFile(dir + "init_files.record", dir + "etc/manifest\n");
    writeFile(dir + "added/deeper/file", "remove");
    const std::string out = underRoot("/clean-stdout");
    // In a child with no descriptor to spare for the walk's next folder.
    const int status = testsupport::inChildProcess([&] {
        const int file = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (file < 0 || ::dup2(file, 1) < 0) {
            return 10;
        }
        ::close(file);
        // UBSan checks the type behind a virtual call with a pipe when it
        // has not seen it before: let it see std::cout while it still can.
        std::cout << std::string() << std::flush;
        const rlimit limit = {256, 256};
        std::vector<int> filler;
        for (int fd = 0; setrlimit(RLIMIT_NOFILE, &limit) == 0 && (fd = ::open("/dev/null", O_RDONLY)) >= 0;) {
            filler.push_back(fd);
        }
        if (filler.size() < 2) {
            return 11;
        }
        // Two are free: the plugin's directory and one more (the record, then the walk's own copy).
        ::close(filler.back());
        ::close(filler[filler.size() - 2]);
        testsupport::LogCapture log;
        const ApiErrorCode code = manager->cleanPlugin("79");
        std::cout.flush();
        return (code == API_REMOVE_WALK_FAILED ? 0 : 1) | (log.contains("added: open: Too many open files") ? 0 : 2) |
               (log.contains("remove file error, error code is 1001") ? 0 : 4);
    });
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, testsupport::readFile(out).find(dir + "added: open: Too many open files\n"))
        << testsupport::readFile(out);
}

TEST(TimeMachine, MigratesOnlyVersionsAboveOnePointThree) {
    PluginManager* manager = Singleton<PluginManager>::instance();
    const std::string id = TimeMachineInfo::getPluginId();
    auto prepare = [&](const std::string& version) {
        boost::filesystem::remove_all(underRoot("/userdisk/data"));
        boost::filesystem::create_directories(underRoot("/userdisk/data"));
        writeFile(timecapsuleOlddir() + "backup.sparsebundle", "backup");
        writeFile(afpOlddir() + "share/file", "afp");
        testsupport::putPlugin(id, datacenter::ENABLED);
        datacenter::ConfigInfo::sGetInstance()->setConfigToFile(testsupport::storeManifest(id), "version", version);
        testsupport::putPlugin(id, datacenter::ENABLED);
    };
    for (const char* version : {"1.3", "1.2.9", "1", "1.x"}) {
        prepare(version);
        manager->moveTimeMachineData(id);
        EXPECT_TRUE(exists(timecapsuleOlddir() + "backup.sparsebundle")) << version;
        EXPECT_TRUE(exists(afpOlddir() + "share/file")) << version;
        EXPECT_FALSE(exists(timecapsuleNewdir() + "backup.sparsebundle")) << version;
    }
    manager->moveTimeMachineData("5017400000000000100");
    EXPECT_TRUE(exists(timecapsuleOlddir() + "backup.sparsebundle"));

    prepare("1.3.0");
    manager->moveTimeMachineData(id);
    EXPECT_EQ("backup", testsupport::readFile(timecapsuleNewdir() + "backup.sparsebundle"));
    EXPECT_EQ("afp", testsupport::readFile(afpNewdir() + "share/file"));
    EXPECT_FALSE(exists(afpOlddir()));
    EXPECT_FALSE(exists(timecapsuleOlddir()));
}
