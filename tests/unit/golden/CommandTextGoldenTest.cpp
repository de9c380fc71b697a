// The log lines of the command helpers and of the plugin command runner for
// every outcome of a command (exit 0, exit non-zero, killed by a signal, the
// shell or the pipe failing), compared with tests/data/commands/*.expected.
#include <gtest/gtest.h>

#include <map>

#include "Plugin/Plugin.h"
#include "support/Golden.h"
#include "support/LogCapture.h"
#include "system/CommandRunner.h"
#include "system/CommonUtils.h"

namespace {

// Answers each command with a raw wait status; "nostart" cannot be started.
class StatusRunner : public datacenter::CommandRunner {
public:
    int runShell(const std::string& command) override { return statusOf(command); }
    bool runPipe(const std::string& command, std::string& output, int& status) override {
        if (command == "nostart") {
            return false;
        }
        output += " printed\r\n";
        status = statusOf(command);
        return true;
    }

private:
    static int statusOf(const std::string& command) {
        static const std::map<std::string, int> statuses = {
            {"ok", 0}, {"exit3", 3 << 8}, {"killed", 9}, {"noshell", -1}, {"pclosefails", -1}};
        const auto found = statuses.find(command);
        return found == statuses.end() ? 0 : found->second;
    }
};

const char* const kCommands[] = {"ok", "exit3", "killed", "noshell"};

struct Scoped {
    Scoped() { datacenter::CommandRunner::sInstall(std::make_shared<StatusRunner>()); }
    ~Scoped() { datacenter::CommandRunner::sInstall(nullptr); }
};

// Runs `call` for each command, noting its result and the lines it logged.
template <typename Call>
std::string eachOutcome(const std::vector<std::string>& commands, Call call) {
    Scoped runner;
    std::string text;
    for (const std::string& command : commands) {
        testsupport::LogCapture log;
        const std::string result = call(command);
        text += "## " + command + " -> " + result + "\n" + testsupport::logText(log);
    }
    return text;
}

testsupport::Placeholders errnoTexts() {
    // The error text after a failed call depends on what errno held before.
    testsupport::Placeholders placeholders;
    placeholders.addPattern("(error msg is: ?|error number is:).*", "$1<ERRNO TEXT>");
    return placeholders;
}

}  // namespace

TEST(CommandTextGolden, ShellForm) {
    EXPECT_GOLDEN("commands/call-system",
                  eachOutcome({"ok", "exit3", "killed", "noshell"},
                              [](const std::string& c) { return std::to_string(CommonUtils::sCallSystem(c)); }),
                  errnoTexts());
}

TEST(CommandTextGolden, PipeWithoutOutput) {
    EXPECT_GOLDEN("commands/popen-no-output",
                  eachOutcome({"ok", "exit3", "killed", "pclosefails", "nostart"},
                              [](const std::string& c) { return std::to_string(CommonUtils::sCallPopenNoOutput(c)); }),
                  errnoTexts());
}

TEST(CommandTextGolden, PipeWithOutput) {
    EXPECT_GOLDEN("commands/popen-with-output",
                  eachOutcome({"ok", "exit3", "killed", "pclosefails", "nostart"},
                              [](const std::string& c) {
                                  std::string output;
                                  const int code = CommonUtils::sCallPopenWithOutput(c, output);
                                  return std::to_string(code) + " [" + output + "]";
                              }),
                  errnoTexts());
}

TEST(CommandTextGolden, OutputForm) {
    EXPECT_GOLDEN("commands/call-system-output", eachOutcome({"exit3", "nostart"}, [](const std::string& c) {
                      std::string output;
                      const bool started = CommonUtils::sCallSystem(c, output);
                      return std::string(started ? "true" : "false") + " [" + output + "]";
                  }));
}

TEST(CommandTextGolden, PluginCommands) {
    std::vector<std::string> commands(std::begin(kCommands), std::end(kCommands));
    commands.push_back("");
    EXPECT_GOLDEN("commands/plugin-call-system", eachOutcome(commands, [](const std::string& c) {
                      return std::to_string(callSystem(c, exitcode2Apicode));
                  }));
}
