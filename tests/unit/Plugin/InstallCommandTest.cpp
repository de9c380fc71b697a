#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Plugin/installPlugin.h"

namespace {

bool parse(const std::vector<std::string>& args, InstallCommand& command) {
    std::vector<std::string> storage{"installplugin"};
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& arg : storage) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    return parseInstallCommand(static_cast<int>(storage.size()), argv.data(), command);
}

}  // namespace

TEST(InstallCommand, KeepOnlyWithoutUpdateLastPathWinsUnknownOptionsFail) {
    struct Case {
        std::vector<std::string> args;
        bool parsed;
        std::string path;
        bool keep;
    };
    const std::vector<Case> cases = {
        {{"-f", "p.qpk", "-k"}, true, "p.qpk", true},
        {{"-f", "p.qpk", "-k", "-u"}, true, "p.qpk", false},
        {{"-u", "-k", "-f", "p.qpk"}, true, "p.qpk", false},
        {{"-f", "a.qpk", "stray", "-f", "b.qpk"}, true, "b.qpk", false},
        {{}, true, "", false},
        {{"-s"}, false, "", false},
        {{"-f"}, false, "", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - &cases[0]);
        InstallCommand command;
        ASSERT_EQ(c.parsed, parse(c.args, command));
        if (c.parsed) {
            EXPECT_EQ(c.path, command.path);
            EXPECT_EQ(c.keep, command.keep);
        }
    }
}
