// The keep-map removal walk and the descriptor-based removal beneath it.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "storage/TreeRemoval.h"
#include "support/LogCapture.h"
#include "support/TestSupport.h"

using testsupport::exists;
using testsupport::writeFile;

namespace fs = boost::filesystem;

TEST(RemovalWalk, KeepMapDecidesPerEntryAndLinksAreRemovedAsLinks) {
    const std::string dir = testsupport::makeScratchDir("walk") + "/";
    const std::string outside = testsupport::makeScratchDir("outside");
    writeFile(outside + "/secret", "secret");
    for (const char* file : {"kept.txt", "gone.txt", "sub/kept", "sub/gone", "whole/a/b", "dropped/x"}) {
        writeFile(dir + file, file);
    }
    fs::create_symlink(outside + "/secret", dir + "file-link");
    fs::create_directory_symlink(outside, dir + "dir-link");
    fs::create_directory_symlink(outside, dir + "sub/dir-link");
    const std::map<std::string, bool> keep = {{dir, true},
                                              {dir + "kept.txt", true},
                                              {dir + "sub", true},
                                              {dir + "sub/kept", true},
                                              {dir + "whole", false},
                                              {dir + "file-link", true},
                                              {dir + "dir-link", true},
                                              {dir + "sub/dir-link", false}};
    PluginManager* manager = Singleton<PluginManager>::instance();
    ASSERT_TRUE(manager->removeFileIterative(dir, keep));
    EXPECT_EQ("kept.txt: kept.txt\nsub/\nsub/kept: sub/kept\nwhole/\nwhole/a/\nwhole/a/b: whole/a/b\n",
              testsupport::treeText(dir));
    EXPECT_EQ("secret", testsupport::readFile(outside + "/secret"));

    testsupport::LogCapture log;
    EXPECT_FALSE(manager->removeFileIterative(dir + "missing", keep));
    EXPECT_TRUE(log.contains("File path '" + dir + "missing' Do Not exist"));
}

TEST(RemovalWalk, TreeRemovalNeverLeavesTheDirectoryItStartsIn) {
    const std::string dir = testsupport::makeScratchDir("tree");
    const std::string outside = testsupport::makeScratchDir("elsewhere");
    writeFile(outside + "/keep", "keep");
    writeFile(dir + "/victim/deep/file", "x");
    fs::create_directory_symlink(outside, dir + "/victim/deep/link");
    fs::create_directory_symlink("/", dir + "/victim/root");
    const datacenter::UniqueFd fd = datacenter::TreeRemoval::sOpenDirectory(dir);
    ASSERT_TRUE(fd.valid());
    std::string error;
    EXPECT_TRUE(datacenter::TreeRemoval::sRemoveAt(fd.get(), "victim", error)) << error;
    EXPECT_FALSE(exists(dir + "/victim"));
    EXPECT_EQ("keep", testsupport::readFile(outside + "/keep"));
    EXPECT_TRUE(datacenter::TreeRemoval::sRemoveAt(fd.get(), "absent", error));
    // A link is never opened as a directory.
    fs::create_directory_symlink(outside, dir + "/link");
    EXPECT_FALSE(datacenter::TreeRemoval::sOpenDirectory(dir + "/link").valid());
    EXPECT_FALSE(datacenter::TreeRemoval::sOpenDirectory(dir + "/link/").valid());
    EXPECT_FALSE(datacenter::TreeRemoval::sOpenAt(fd.get(), "link").valid());
    EXPECT_FALSE(datacenter::TreeRemoval::sOpenAt(fd.get(), "..").valid());
}

TEST(RemovalWalk, AWalkStopsWhenTheDirectoryItIsInIsMovedAway) {
    using datacenter::TreeRemoval;
    const std::string dir = testsupport::makeScratchDir("moved");
    writeFile(dir + "/a/b/file", "x");
    const datacenter::UniqueFd fd = TreeRemoval::sOpenDirectory(dir);
    TreeRemoval::Rules rules;
    rules.decide = [&dir](const TreeRemoval::Entry& entry) {
        if (entry.name == "file") {
            fs::rename(dir + "/a/b", dir + "/b");
        }
        return entry.kind == TreeRemoval::DIRECTORY ? TreeRemoval::ENTER : TreeRemoval::REMOVE;
    };
    std::string error;
    EXPECT_FALSE(TreeRemoval::sWalk(fd.get(), dir, rules, error));
    EXPECT_EQ(dir + "/a/b: moved while it was walked; stopped", error);
    EXPECT_TRUE(exists(dir + "/a"));
}
