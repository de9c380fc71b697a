#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "rpc/DataCenterRpcServer.h"
#include "storage/File.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"

using testsupport::RecordingRunner;

namespace {

class EchoHandler : public datacenter::DataCenterRpcHandler {
public:
    std::string request(const std::string& parameter) override { return "echo:" + parameter; }
    std::string notify(int32_t, const std::string&) override { return ""; }
};

void throwStd(const std::string&, const std::string&, std::string&) {
    throw std::runtime_error("bad");
}
void throwOther(const std::string&, const std::string&, std::string&) {
    throw 42;
}

}  // namespace

TEST(ControlPlugin, ForwardsTheRequestToThePluginsRecordedPort) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::string response = "untouched";
    EXPECT_EQ(API_FAILED, manager->controlPlugin("p1", "hello", response));

    datacenter::DataCenterRpcServer server(std::make_shared<EchoHandler>());
    std::string error;
    ASSERT_TRUE(server.start(0, error)) << error;
    manager->setPluginPort("p1", std::to_string(server.port()), datacenter::PORT);
    EXPECT_EQ(API_SUCCESS, manager->controlPlugin("p1", "hello", response));
    EXPECT_EQ("echo:hello", response);
    EXPECT_EQ(API_SUCCESS, manager->controlPlugin("p1", "", response));
    EXPECT_EQ("echo:", response);
}

TEST(ControlPlugin, RefusedConnectionsAndBadPortsFailWithoutTimingOut) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::string response;
    manager->setPluginPort("p2", std::to_string(testsupport::closedLoopbackPort()), datacenter::PORT);
    EXPECT_EQ(API_FAILED, manager->controlPlugin("p2", "x", response));
    manager->setPluginPort("p3", "not-a-port", datacenter::PORT);
    EXPECT_EQ(API_FAILED, manager->controlPlugin("p3", "x", response));
}

TEST(ConfigData, StoresKeysWithPrefixAndLeavesTheFileOpenToThePlugin) {
    const auto runner = RecordingRunner::sInstall();
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
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::string value;
    EXPECT_EQ(API_CONFIG_DATA_STD_EXCEPTION, manager->controlConfigData("43", "k", value, throwStd));
    EXPECT_EQ(API_CONFIG_DATA_EXCEPTION, manager->controlConfigData("43", "k", value, throwOther));
    // The lock was released on the error paths: a normal call goes through.
    EXPECT_EQ(API_SUCCESS, manager->setPluginConfigData("43", "k", "v"));

    EXPECT_EQ(API_FAILED, manager->setPluginConfigData("", "k", "v"));
    EXPECT_EQ(API_FAILED, manager->setPluginConfigData("../../escape", "k", "v"));
    EXPECT_EQ(API_FAILED, manager->getPluginConfigData("a/b", "k", value));
    EXPECT_FALSE(datacenter::File::sExists(testsupport::underRoot("/userdisk/escape")));
    EXPECT_FALSE(datacenter::File::sExists(testsupport::underRoot("/userdisk/appdata/a")));
}
