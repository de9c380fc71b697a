#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "Plugin/installPlugin.h"

namespace {

bool parse(std::initializer_list<const char*> args, InstallCommand& command) {
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

TEST(InstallCommand, KeepIsPassedOnlyWithoutTheUpdateFlag) {
    InstallCommand keep;
    ASSERT_TRUE(parse({"-f", "p.qpk", "-k"}, keep));
    EXPECT_EQ("p.qpk", keep.path);
    EXPECT_TRUE(keep.keep);

    InstallCommand updateAfter;
    ASSERT_TRUE(parse({"-f", "p.qpk", "-k", "-u"}, updateAfter));
    EXPECT_FALSE(updateAfter.keep);

    InstallCommand updateBefore;
    ASSERT_TRUE(parse({"-u", "-k", "-f", "p.qpk"}, updateBefore));
    EXPECT_EQ("p.qpk", updateBefore.path);
    EXPECT_FALSE(updateBefore.keep);
}

TEST(InstallCommand, LastPathWinsStrayArgumentsAreIgnoredUnknownOptionsFail) {
    InstallCommand twice;
    ASSERT_TRUE(parse({"-f", "a.qpk", "stray", "-f", "b.qpk"}, twice));
    EXPECT_EQ("b.qpk", twice.path);
    EXPECT_FALSE(twice.keep);

    InstallCommand none;
    ASSERT_TRUE(parse({}, none));
    EXPECT_EQ("", none.path);

    InstallCommand unknown;
    EXPECT_FALSE(parse({"-s"}, unknown));
    InstallCommand missingArgument;
    EXPECT_FALSE(parse({"-f"}, missingArgument));
}
