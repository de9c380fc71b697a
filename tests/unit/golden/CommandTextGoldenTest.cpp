// The log lines of the command helpers and of the plugin command runner for
// every outcome of a command (exit 0, exit non-zero, killed by a signal, the
// shell or the pipe failing), compared with tests/data/commands/*.expected.
#include <gtest/gtest.h>

#include <functional>
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

struct Scoped {
    Scoped() { datacenter::CommandRunner::sInstall(std::make_shared<StatusRunner>()); }
    ~Scoped() { datacenter::CommandRunner::sInstall(nullptr); }
};

}  // namespace

// Each helper run for each of its outcomes, with its result and the lines it logged.
TEST(CommandTextGolden, EveryHelperAndOutcome) {
    typedef std::function<std::string(const std::string&)> Call;
    const auto withOutput = [](const std::string& c) {
        std::string output;
        const int code = CommonUtils::sCallPopenWithOutput(c, output);
        return std::to_string(code) + " [" + output + "]";
    };
    const auto outputForm = [](const std::string& c) {
        std::string output;
        const bool started = CommonUtils::sCallSystem(c, output);
        return std::string(started ? "true" : "false") + " [" + output + "]";
    };
    const struct {
        const char* golden;
        std::vector<std::string> commands;
        Call call;
    } helpers[] = {
        {"call-system",
         {"ok", "exit3", "killed", "noshell"},
         [](const std::string& c) { return std::to_string(CommonUtils::sCallSystem(c)); }},
        {"popen-no-output",
         {"ok", "exit3", "killed", "pclosefails", "nostart"},
         [](const std::string& c) { return std::to_string(CommonUtils::sCallPopenNoOutput(c)); }},
        {"popen-with-output", {"ok", "exit3", "killed", "pclosefails", "nostart"}, withOutput},
        {"call-system-output", {"exit3", "nostart"}, outputForm},
        // A shell that cannot be started must not read as success.
        {"plugin-call-system",
         {"ok", "exit3", "killed", "noshell", ""},
         [](const std::string& c) { return std::to_string(callSystem(c, exitcode2Apicode)); }},
    };
    // The error text after a failed call depends on what errno held before.
    testsupport::Placeholders errnoTexts;
    errnoTexts.addPattern("(error msg is: ?|error number is:).*", "$1<ERRNO TEXT>");
    Scoped runner;
    for (const auto& helper : helpers) {
        std::string text;
        for (const std::string& command : helper.commands) {
            testsupport::LogCapture log;
            const std::string result = helper.call(command);
            text += "## " + command + " -> " + result + "\n" + testsupport::logText(log);
        }
        EXPECT_GOLDEN(std::string("commands/") + helper.golden, text, errnoTexts) << helper.golden;
    }
}
