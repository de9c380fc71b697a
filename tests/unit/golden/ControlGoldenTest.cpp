// Results and log lines of the control call to a plugin (and the plugin's
// answer) and of its configuration data for each outcome, compared with
// tests/data/control/*.expected.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>
#include <stdexcept>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "rpc/DataCenterRpcServer.h"
#include "support/ChildServer.h"
#include "support/Golden.h"
#include "support/LogCapture.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"

using testsupport::RecordingRunner;

namespace {

class Handler : public datacenter::DataCenterRpcHandler {
public:
    std::string request(const std::string& parameter) override {
        if (parameter == "throw") {
            throw std::runtime_error("plugin failed");
        }
        return "echo:" + parameter;
    }
    std::string notify(int32_t, const std::string&) override { return ""; }
};

void throwStd(const std::string&, const std::string&, std::string&) {
    throw std::runtime_error("bad value");
}
void throwOther(const std::string&, const std::string&, std::string&) {
    throw 42;
}

// The result of `call` and the lines it logged.
template <typename Call>
std::string outcome(const std::string& title, Call call) {
    testsupport::LogCapture log;
    const ApiErrorCode code = call();
    return "## " + title + " -> " + std::to_string(code) + "\n" + testsupport::logText(log);
}

}  // namespace

TEST(ControlGolden, ControlPluginOutcomes) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    // The plugin's server runs in a process of the plugin; another one, in
    // this process, listens on the port a second plugin records.
    testsupport::ChildServer server(PluginManager::sGetPluginDataPath("answers"), [] {
        auto* own = new datacenter::DataCenterRpcServer(std::make_shared<Handler>());
        std::string error;
        return own->start(0, error) ? own->port() : 0;
    });
    ASSERT_GT(server.port(), 0);
    datacenter::DataCenterRpcServer foreign(std::make_shared<Handler>());
    std::string error;
    ASSERT_TRUE(foreign.start(0, error)) << error;
    boost::filesystem::create_directories(PluginManager::sGetPluginDataPath("victim"));
    const int refused = testsupport::closedLoopbackPort();
    manager->setPluginPort("answers", std::to_string(server.port()), datacenter::PORT);
    manager->setPluginPort("victim", std::to_string(foreign.port()), datacenter::PORT);
    manager->setPluginPort("refuses", std::to_string(refused), datacenter::PORT);
    manager->setPluginPort("badport", "not-a-port", datacenter::PORT);

    std::string response;
    std::string text;
    text += outcome("no port", [&] { return manager->controlPlugin("noport", "x", response); });
    text += outcome("answered", [&] { return manager->controlPlugin("answers", "x", response); });
    text += "response [" + response + "]\n";
    text += outcome("answered an empty request", [&] { return manager->controlPlugin("answers", "", response); });
    text += "response [" + response + "]\n";
    text += outcome("plugin throws", [&] { return manager->controlPlugin("answers", "throw", response); });
    text += outcome("refused", [&] { return manager->controlPlugin("refuses", "x", response); });
    text += outcome("port not a number", [&] { return manager->controlPlugin("badport", "x", response); });
    text += outcome("another process listens on the recorded port",
                    [&] { return manager->controlPlugin("victim", "x", response); });
    testsupport::Placeholders placeholders;
    placeholders.add(std::to_string(refused), "<CLOSED PORT>")
        .add(std::to_string(server.port()), "<PORT>")
        .add(std::to_string(foreign.port()), "<FOREIGN PORT>");
    EXPECT_GOLDEN("control/control-plugin", text, placeholders);
}

TEST(ControlGolden, ConfigDataOutcomes) {
    const auto runner = RecordingRunner::sInstall();
    PluginManager* manager = Singleton<PluginManager>::instance();
    std::string value;
    std::string text;
    text += outcome("set", [&] { return manager->setPluginConfigData("42", "mode", "on"); });
    text += outcome("get", [&] { return manager->getPluginConfigData("42", "mode", value); });
    text += outcome("accessor throws std::exception",
                    [&] { return manager->controlConfigData("42", "mode", value, throwStd); });
    text += outcome("accessor throws something else",
                    [&] { return manager->controlConfigData("42", "mode", value, throwOther); });
    text +=
        outcome("id leaving the plugin directory", [&] { return manager->setPluginConfigData("../x", "mode", "on"); });
    // The file or its folder cannot be opened: a line says why before 1038.
    testsupport::writeFile(testsupport::underRoot("/outside/plugin_config"), "key = \"x\";\n");
    boost::filesystem::create_directories(PluginManager::sGetPluginDataPath("43") + "etc");
    boost::filesystem::create_symlink(testsupport::underRoot("/outside/plugin_config"),
                                      PluginManager::sGetPluginDataPath("43") + "etc/plugin_config");
    text += outcome("configuration file is a link", [&] { return manager->getPluginConfigData("43", "mode", value); });
    boost::filesystem::create_directories(PluginManager::sGetPluginDataPath("44"));
    boost::filesystem::create_directory_symlink(testsupport::underRoot("/outside"),
                                                PluginManager::sGetPluginDataPath("44") + "etc");
    text += outcome("etc folder is a link", [&] { return manager->getPluginConfigData("44", "mode", value); });
    EXPECT_GOLDEN("control/config-data", text);
}
