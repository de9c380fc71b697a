#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <functional>
#include <vector>

#include "common/ShellArgument.h"
#include "storage/PlainFile.h"
#include "storage/PluginTree.h"
#include "storage/UniqueFd.h"
#include "support/TestSupport.h"

namespace fs = boost::filesystem;
using datacenter::PluginTree;
using testsupport::readFile;
using testsupport::writeFile;

namespace {

struct Layout {
    std::string tree;     // the plugin's directory
    std::string outside;  // a folder next to it that links aim at
};

Layout makeLayout(const std::string& name) {
    const std::string base = testsupport::makeScratchDir(name);
    Layout layout{base + "/plugin/", base + "/outside"};
    fs::create_directories(layout.tree);
    writeFile(layout.outside + "/secret", "secret");
    chmod((layout.outside + "/secret").c_str(), 0600);
    return layout;
}

mode_t modeOf(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode : 0;
}

void expectOutsideUntouched(const Layout& layout) {
    EXPECT_EQ("secret", readFile(layout.outside + "/secret"));
    EXPECT_EQ(0600u, modeOf(layout.outside + "/secret") & 0777);
    EXPECT_EQ(1, std::distance(fs::directory_iterator(layout.outside), fs::directory_iterator()));
}

}  // namespace

TEST(PluginTreeNames, OnlyPlainRelativeNamesAreSafe) {
    for (const char* ok : {"manifest", "bin/app", "www/css/", "a.b/c-d_e", "..hidden", "x..y"}) {
        EXPECT_TRUE(PluginTree::sIsSafeName(ok)) << ok;
    }
    for (const char* bad : {"", "/etc/passwd", "..", "../x", "a/../../x", "a/./b", "./a", "a//b", "..\\..\\x", "a\\b",
                            "a\nb", "a\tb", "a\x7f", "a\x1b[2J"}) {
        EXPECT_FALSE(PluginTree::sIsSafeName(bad)) << bad;
    }
}

TEST(PluginTreeLinks, ALinkAtAnyComponentIsRefusedAndNothingOutsideChanges) {
    const Layout layout = makeLayout("links");
    PluginTree tree(layout.tree);
    ASSERT_TRUE(tree.isOpen());
    // A link as the first component, deeper down, and as the last one.
    fs::create_symlink(layout.outside, layout.tree + "www");
    fs::create_directories(layout.tree + "a/b");
    fs::create_symlink(layout.outside, layout.tree + "a/b/c");
    fs::create_symlink(layout.outside + "/secret", layout.tree + "a/config");

    EXPECT_EQ(-1, tree.openDirectory("www", true, 0777));
    EXPECT_NE(std::string::npos, tree.lastError().find("symbolic link")) << tree.lastError();
    EXPECT_EQ(-1, tree.openDirectory("www/sub", true, 0777));
    EXPECT_EQ(-1, tree.openDirectory("a/b/c/d", true, 0777));
    EXPECT_EQ(-1, tree.openFile("www/index.html", O_WRONLY | O_CREAT | O_TRUNC, 0777));
    EXPECT_EQ(-1, tree.openFile("a/b/c/secret", O_WRONLY | O_CREAT | O_TRUNC, 0777));
    EXPECT_EQ(-1, tree.openFile("a/config", O_WRONLY | O_CREAT | O_TRUNC, 0777));
    EXPECT_EQ(-1, tree.openFile("a/config", O_RDONLY, 0));
    EXPECT_FALSE(tree.chmod("a/config", 0777));
    // Opening relative to a directory held open takes one plain component only.
    const int a = tree.openDirectory("a", false, 0);
    ASSERT_GE(a, 0);
    for (const char* leaf : {"config", "../a/config", "b/c/secret", "..", ""}) {
        EXPECT_EQ(-1, tree.openFileIn(a, leaf, O_WRONLY | O_CREAT | O_TRUNC, 0777)) << leaf;
    }
    close(a);
    EXPECT_FALSE(tree.chmod("www/secret", 0777));
    EXPECT_FALSE(tree.chmod("www", 0777));
    EXPECT_TRUE(tree.isLink("www"));
    expectOutsideUntouched(layout);

    // Renaming onto a link replaces the link, never the file it points at.
    writeFile(layout.tree + "manifest", "new");
    EXPECT_TRUE(tree.rename("manifest", "a/config"));
    EXPECT_EQ("new", readFile(layout.tree + "a/config"));
    // Removing a link removes the link only.
    EXPECT_TRUE(tree.remove("www"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(layout.tree + "www")));
    expectOutsideUntouched(layout);
}

TEST(PluginTreeLinks, TheDirectoryItselfMustNotBeALink) {
    const Layout layout = makeLayout("rootlink");
    const std::string link = layout.tree.substr(0, layout.tree.size() - 1) + "-link";
    fs::create_symlink(layout.outside, link);
    EXPECT_FALSE(PluginTree(link + "/").isOpen());
    EXPECT_FALSE(PluginTree("").isOpen());
    EXPECT_TRUE(PluginTree(layout.tree).isOpen());
}

TEST(PluginTreeFiles, CreatesFoldersAndFilesWithTheModeAskedDespiteTheUmask) {
    const Layout layout = makeLayout("create");
    PluginTree tree(layout.tree);
    const mode_t old = umask(022);
    const int dir = tree.openDirectory("www/css/", true, 0777);
    umask(old);
    ASSERT_GE(dir, 0);
    close(dir);
    EXPECT_EQ(0777u, modeOf(layout.tree + "www") & 0777);
    EXPECT_EQ(0777u, modeOf(layout.tree + "www/css") & 0777);

    const int fd = tree.openFile("www/css/site.css", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(4, write(fd, "body", 4));
    close(fd);
    EXPECT_TRUE(tree.chmod("www/css/site.css", 0777));
    EXPECT_EQ(0777u, modeOf(layout.tree + "www/css/site.css") & 0777);
    EXPECT_EQ("body", readFile(layout.tree + "www/css/site.css"));
    // Truncation happens on what was opened.
    close(tree.openFile("www/css/site.css", O_WRONLY | O_TRUNC, 0));
    EXPECT_EQ("", readFile(layout.tree + "www/css/site.css"));
    // A file where a folder is expected stops the walk.
    writeFile(layout.tree + "bin", "file");
    EXPECT_EQ(-1, tree.openDirectory("bin/sub", true, 0777));
    EXPECT_EQ(-1, tree.openFile("missing/file", O_WRONLY | O_CREAT, 0777));
}

TEST(PluginTreeFiles, FifosAreRefusedWithoutBlocking) {
    const Layout layout = makeLayout("fifo");
    PluginTree tree(layout.tree);
    ASSERT_EQ(0, mkfifo((layout.tree + "pipe").c_str(), 0666));
    EXPECT_EQ(-1, tree.openFile("pipe", O_WRONLY | O_CREAT | O_TRUNC, 0777));
    EXPECT_EQ(-1, tree.openFile("pipe", O_RDWR | O_CREAT | O_APPEND, 0777));
    EXPECT_EQ(-1, tree.openFile("pipe", O_RDONLY, 0));
    EXPECT_FALSE(tree.chmod("pipe", 0777));
    EXPECT_TRUE(S_ISFIFO(modeOf(layout.tree + "pipe")));
}

TEST(PluginTreeFiles, AHardLinkToAFileOutsideIsReplacedNotWritten) {
    const Layout layout = makeLayout("hardlink");
    PluginTree tree(layout.tree);
    ASSERT_EQ(0, link((layout.outside + "/secret").c_str(), (layout.tree + "config").c_str()));
    const int fd = tree.openFile("config", O_WRONLY | O_CREAT | O_TRUNC, 0777);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(3, write(fd, "new", 3));
    close(fd);
    EXPECT_EQ("new", readFile(layout.tree + "config"));
    EXPECT_EQ("secret", readFile(layout.outside + "/secret"));
    EXPECT_EQ(0600u, modeOf(layout.outside + "/secret") & 0777);
}

// The reader of files a plugin controls reads a plain file of its size and
// refuses, without blocking, whatever else was planted in its place.
TEST(PlainFileRead, OnlyAPlainFileWithinItsLimitIsRead) {
    const Layout layout = makeLayout("plainfile");
    const std::string target = layout.tree + "record";
    struct Case {
        const char* name;
        std::function<void()> plant;
        const char* refusal;  // nullptr: read
    };
    const std::vector<Case> cases{
        {"a plain file", [&] { writeFile(target, "a\nb\n"); }, nullptr},
        {"a link to a file outside", [&] { fs::create_symlink(layout.outside + "/secret", target); }, "open"},
        {"a FIFO", [&] { mkfifo(target.c_str(), 0666); }, "not a regular file"},
        {"a hard link to a file outside", [&] { link((layout.outside + "/secret").c_str(), target.c_str()); },
         "more than one link"},
        {"a file over the limit", [&] { writeFile(target, std::string(65, 'x')); }, "larger than the limit"},
        {"a folder", [&] { fs::create_directory(target); }, "not a regular file"},
        {"nothing", [] {}, "open"},
    };
    const datacenter::UniqueFd folder(::open(layout.tree.c_str(), O_RDONLY | O_DIRECTORY));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(target);
        c.plant();
        for (const bool relative : {false, true}) {
            std::string text = "stale";
            std::string why;
            const bool read = relative ? datacenter::PlainFile::sReadAt(folder.get(), "record", 64, text, why)
                                       : datacenter::PlainFile::sRead(target, 64, text, why);
            EXPECT_EQ(c.refusal == nullptr, read);
            EXPECT_EQ(c.refusal ? "" : "a\nb\n", text);
            EXPECT_NE(std::string::npos, why.find(c.refusal ? c.refusal : "")) << why;
        }
    }
    fs::remove_all(target);
    expectOutsideUntouched(layout);
}

TEST(ShellArgument, PlainWordsStayAsTheyAreEverythingElseIsQuoted) {
    EXPECT_EQ("/userdisk/appdata/5017400000000000100/",
              datacenter::shellArgument("/userdisk/appdata/5017400000000000100/"));
    EXPECT_EQ("'/a b/c'", datacenter::shellArgument("/a b/c"));
    EXPECT_EQ("'x;rm -rf /'", datacenter::shellArgument("x;rm -rf /"));
    EXPECT_EQ("'it'\\''s'", datacenter::shellArgument("it's"));
    EXPECT_EQ("'$(id)'", datacenter::shellArgument("$(id)"));
    EXPECT_EQ("''", datacenter::shellArgument(""));
    // What the shell makes of a quoted value is the value itself.
    const std::string hostile = "a'b\"c $(x) `y` \\ *";
    EXPECT_EQ(hostile + "\n", testsupport::runCommand("printf '%s\\n' " + datacenter::shellArgument(hostile)).output);
}
