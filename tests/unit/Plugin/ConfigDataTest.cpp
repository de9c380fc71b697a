// A plugin's configuration data: stored with a key prefix in a file the
// plugin may open, ids that leave the plugin's directory refused, the lock
// announced before it waits, released on every error path and never taken on
// a file reached through a link (HostileTreeTest). The exact codes and log lines of each
// outcome are ControlGoldenTest's.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <stdexcept>
#include <thread>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "storage/File.h"
#include "support/LogCapture.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"

namespace {

std::atomic<bool> gAccessorRan(false);

void noteRun(const std::string&, const std::string&, std::string&) {
    gAccessorRan = true;
}
void throwStd(const std::string&, const std::string&, std::string&) {
    throw std::runtime_error("bad");
}
void throwOther(const std::string&, const std::string&, std::string&) {
    throw 42;
}

}  // namespace

TEST(ConfigDataLock, TheFlockLineComesBeforeTheWaitForAnotherHolder) {
    const auto runner = testsupport::RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::string value;
    ASSERT_EQ(API_SUCCESS, manager->getPluginConfigData("61", "k", value));
    const std::string path = manager->getConfigFilePath("61");
    const int holder = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(holder, 0);
    ASSERT_EQ(0, flock(holder, LOCK_EX));

    testsupport::LogCapture log;
    std::thread caller([&] { manager->controlConfigData("61", "k", value, noteRun); });
    EXPECT_TRUE(testsupport::waitUntil([&] { return log.contains("controlConfigData flock"); }));
    EXPECT_FALSE(gAccessorRan);
    flock(holder, LOCK_UN);
    close(holder);
    caller.join();
    EXPECT_TRUE(gAccessorRan);
    EXPECT_TRUE(log.contains("controlConfigData unlock"));
}

TEST(ConfigData, StoresKeysWithPrefixAndLeavesTheFileOpenToThePlugin) {
    const auto runner = testsupport::RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::string value = "stale";
    // A plugin without an etc directory gets one, with an empty file.
    EXPECT_EQ(API_SUCCESS, manager->getPluginConfigData("42", "mode", value));
    EXPECT_EQ("", value);
    const std::string path = manager->getConfigFilePath("42");
    EXPECT_TRUE(datacenter::File::sExists(path));

    EXPECT_EQ(API_SUCCESS, manager->setPluginConfigData("42", "mode", "on"));
    EXPECT_EQ(API_SUCCESS, manager->getPluginConfigData("42", "mode", value));
    EXPECT_EQ("on", value);
    EXPECT_NE(std::string::npos, testsupport::readFile(path).find("keymode = \"on\";"));
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0777u, st.st_mode & 0777);

    EXPECT_EQ(API_SUCCESS, manager->setPluginConfigData("42", "mode", ""));
    EXPECT_EQ(API_SUCCESS, manager->getPluginConfigData("42", "mode", value));
    EXPECT_EQ("", value);
}

TEST(ConfigData, AccessorFailuresAndIdsThatLeaveThePluginDirectoryAreRefused) {
    const auto runner = testsupport::RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::string value;
    // The codes are golden cases; here the lock is released on the error paths.
    manager->controlConfigData("43", "k", value, throwStd);
    manager->controlConfigData("43", "k", value, throwOther);
    EXPECT_EQ(API_SUCCESS, manager->setPluginConfigData("43", "k", "v"));

    EXPECT_EQ(API_FAILED, manager->setPluginConfigData("", "k", "v"));
    EXPECT_EQ(API_FAILED, manager->setPluginConfigData("../../escape", "k", "v"));
    EXPECT_EQ(API_FAILED, manager->getPluginConfigData("a/b", "k", value));
    EXPECT_FALSE(datacenter::File::sExists(testsupport::underRoot("/userdisk/escape")));
    EXPECT_FALSE(datacenter::File::sExists(testsupport::underRoot("/userdisk/appdata/a")));
}
