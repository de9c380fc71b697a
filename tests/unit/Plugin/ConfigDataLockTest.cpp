// The configuration-data call's lock: announced before it waits, and never
// taken on a file reached through a link.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <thread>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/LogCapture.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"

namespace {

std::atomic<bool> gAccessorRan(false);

void noteRun(const std::string&, const std::string&, std::string&) {
    gAccessorRan = true;
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
    for (int waited = 0; !log.contains("controlConfigData flock") && waited < 30000; waited += 10) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_TRUE(log.contains("controlConfigData flock"));
    EXPECT_FALSE(gAccessorRan);
    flock(holder, LOCK_UN);
    close(holder);
    caller.join();
    EXPECT_TRUE(gAccessorRan);
    EXPECT_TRUE(log.contains("controlConfigData unlock"));
}

TEST(ConfigDataLock, ALinkInPlaceOfTheFileIsNotOpened) {
    const auto runner = testsupport::RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    const std::string outside = testsupport::underRoot("/outside/file");
    testsupport::writeFile(outside, "keep");
    const std::string path = manager->getConfigFilePath("62");
    boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
    boost::filesystem::create_symlink(outside, path);
    EXPECT_EQ(API_CONFIG_FILE_OPEN_FAILED, manager->setPluginConfigData("62", "k", "v"));
    EXPECT_EQ("keep", testsupport::readFile(outside));
}
