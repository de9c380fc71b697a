// Status changes of every plugin kind: the result, the exact commands they
// issue, the log lines they write and the status stored afterwards (kept
// when a command fails), compared with tests/data/status/*.expected.
#include <gtest/gtest.h>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "support/Golden.h"
#include "support/LogCapture.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::putPlugin;
using testsupport::RecordingRunner;

namespace {

struct Kind {
    const char* name;
    const char* id;
};

// Every built-in kind by its fixed id, and an ordinary (binary) plugin.
const Kind kKinds[] = {
    {"sougou-preload", "5017400000000000003"},
    {"baidu-preload", "5017400000000000004"},
    {"welcome", "5017400000000000005"},
    {"ad-blocker", "5017400000000000006"},
    {"samba", "5017400000000000007"},
    {"minidlna", "5017400000000000008"},
    {"tgp", "5017400000000000009"},
    {"lumoapp", "5017400000000000010"},
    {"binary", "5017400000000000100"},
};

// Starts the manager and loads the store before anything is captured.
void warmUp(const std::string& id) {
    const auto runner = RecordingRunner::sInstall();
    Singleton<PluginManager>::instance();
    testsupport::storedStatus(id);
}

// Enables and then disables the plugin, noting each result, the commands
// each change ran and the log lines it wrote. The welcome page's status is
// not kept in its manifest, so after its refused start what the store reports
// depends on whether it reloaded in between: only its start is compared.
std::string enableThenDisable(const std::string& id) {
    std::string text;
    const bool welcome = id == "5017400000000000005";
    for (const datacenter::PluginStatus status : {datacenter::ENABLED, datacenter::DISABLED}) {
        if (welcome && status == datacenter::DISABLED) {
            break;
        }
        const auto runner = RecordingRunner::sInstall();
        testsupport::LogCapture log;
        const ApiErrorCode code = Singleton<PluginManager>::instance()->changePluginStatus(id, status);
        text += std::string("## ") + (status == datacenter::ENABLED ? "enable" : "disable") + " -> " +
                std::to_string(code) + "\n## commands\n" + testsupport::joinLines(runner->commands()) + "## log\n" +
                testsupport::logText(log);
        if (!welcome) {
            text += "## stored " + std::to_string(testsupport::storedStatus(id)) + "\n";
        }
    }
    return text;
}

}  // namespace

TEST(StatusChangeGolden, EveryKindEnabledAndDisabled) {
    // The TV app needs file sharing; with it present every kind can start.
    putPlugin("5017400000000000007", datacenter::DISABLED);
    for (const Kind& kind : kKinds) {
        putPlugin(kind.id, datacenter::DISABLED);
    }
    warmUp(kKinds[0].id);
    for (const Kind& kind : kKinds) {
        EXPECT_GOLDEN(std::string("status/") + kind.name, enableThenDisable(kind.id)) << kind.name;
    }
}

TEST(StatusChangeGolden, FailingCommandsKeepTheStatus) {
    putPlugin("5017400000000000006", datacenter::DISABLED);
    putPlugin("5017400000000000100", datacenter::ENABLED);
    warmUp(kKinds[3].id);
    std::string text;
    for (const Kind& kind : {kKinds[3], kKinds[8]}) {
        const datacenter::PluginStatus wanted =
            testsupport::storedStatus(kind.id) == datacenter::ENABLED ? datacenter::DISABLED : datacenter::ENABLED;
        const auto runner = RecordingRunner::sInstall();
        runner->answer("", 1);
        testsupport::LogCapture log;
        const ApiErrorCode code = Singleton<PluginManager>::instance()->changePluginStatus(kind.id, wanted);
        text += std::string("## ") + kind.name + " -> " + std::to_string(code) + "\n## commands\n" +
                testsupport::joinLines(runner->commands()) + "## log\n" + testsupport::logText(log);
        text += "## stored " + std::to_string(testsupport::storedStatus(kind.id)) + "\n";
    }
    EXPECT_GOLDEN("status/failing-commands", text);
}

TEST(StatusChangeGolden, APluginTheStoreDoesNotListIsNotStarted) {
    // Its record has a number that does not convert: no listing shows it.
    const std::string id = "5017400000000000102";
    putPlugin(id, datacenter::DISABLED);
    testsupport::writeFile(testsupport::storeManifest(id),
                           "plugin_id = \"" + id + "\";\nstatus = \"6\";\nsdk_level = \"x\";\n");
    warmUp(id);
    const auto runner = RecordingRunner::sInstall();
    testsupport::LogCapture log;
    const ApiErrorCode code = Singleton<PluginManager>::instance()->changePluginStatus(id, datacenter::ENABLED);
    EXPECT_GOLDEN("status/unlisted", "## enable -> " + std::to_string(code) + "\n## commands\n" +
                                         testsupport::joinLines(runner->commands()) + "## log\n" +
                                         testsupport::logText(log));
}
