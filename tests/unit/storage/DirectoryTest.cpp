#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "storage/Directory.h"
#include "storage/File.h"
#include "support/TestSupport.h"
#include "system/CommonUtils.h"

using datacenter::Directory;
using datacenter::File;
using testsupport::readFile;
using testsupport::writeFile;

TEST(DirectoryMakeDir, CreatesEachPrefixKeepingSlashRunsAndToleratesExistingOnes) {
    const std::string base = testsupport::makeScratchDir("makedir");
    std::string path = base + "/a//b/c";
    ASSERT_EQ(0, Directory::make_dir(&path[0], 0755));
    EXPECT_EQ(base + "/a//b/c", path);  // the caller's buffer is restored
    EXPECT_TRUE(Directory::sIsDirectory(base + "/a/b/c"));
    struct stat st;
    ASSERT_EQ(0, stat((base + "/a/b").c_str(), &st));
    EXPECT_EQ(0755u, st.st_mode & 0777);

    std::string again = base + "/a//b/c/d";
    EXPECT_EQ(0, Directory::make_dir(&again[0], 0777));
    EXPECT_TRUE(Directory::sIsDirectory(base + "/a/b/c/d"));

    writeFile(base + "/file", "x");
    std::string blocked = base + "/file/sub";
    EXPECT_EQ(-1, Directory::make_dir(&blocked[0], 0777));
    EXPECT_EQ(base + "/file/sub", blocked);
}

TEST(DirectoryCopy, CopiesTreeAndNamesCollidingFilesAsDuplicates) {
    const std::string base = testsupport::makeScratchDir("copy");
    writeFile(base + "/src/a.txt", "new a");
    writeFile(base + "/src/sub/b.bin", "bee");
    writeFile(base + "/dst/a.txt", "old a");
    // A duplicate name is one that no file has yet.
    writeFile(base + "/src/b(x).txt", "new b");
    writeFile(base + "/dst/b(x).txt", "first");
    writeFile(base + "/dst/b(x)(1).txt", "second");

    ASSERT_TRUE(Directory::sCopyDirectory(base + "/src", base + "/dst").ok());
    EXPECT_EQ(
        "a(1).txt: new a\na.txt: old a\nb(x)(1).txt: second\nb(x)(2).txt: new b\nb(x).txt: first\nsub/\n"
        "sub/b.bin: bee\n",
        testsupport::treeText(base + "/dst"));

    // Into a target that does not exist yet, with its parents.
    ASSERT_TRUE(Directory::sCopyDirectory(base + "/src", base + "/fresh/deep").ok());
    EXPECT_EQ("bee", readFile(base + "/fresh/deep/sub/b.bin"));
}

TEST(DirectoryCopy, ReportsNoSpaceAndSkipsLinks) {
    const std::string base = testsupport::makeScratchDir("copyfail");
    writeFile(base + "/src/f", "data");
    writeFile(base + "/outside", "secret");
    ASSERT_EQ(0, symlink((base + "/outside").c_str(), (base + "/src/link").c_str()));

    ASSERT_TRUE(Directory::sCopyDirectory(base + "/src", base + "/dst").ok());
    EXPECT_EQ("f: data\n", testsupport::treeText(base + "/dst"));

    File::sSetDiskSpaceQuery([](const std::string&) { return datacenter::DiskSpaceInfo(); });
    EXPECT_EQ(API_NO_SPACE, Directory::sCopyDirectory(base + "/src", base + "/dst2").apiCode());
    File::sSetDiskSpaceQuery(nullptr);

    EXPECT_EQ(API_GENERAL_FAILURE, Directory::sCopyDirectory(base + "/missing", base + "/dst3").apiCode());
}

TEST(DirectoryQueries, ListsVisibleEntriesAndDeletesTrees) {
    const std::string base = testsupport::makeScratchDir("list");
    writeFile(base + "/d/visible", "1");
    writeFile(base + "/d/.hidden", "1");
    writeFile(base + "/d/sub/x", "1");
    std::vector<std::string> entries = Directory::sListEntries(base + "/d");
    std::sort(entries.begin(), entries.end());
    EXPECT_EQ((std::vector<std::string>{base + "/d/sub", base + "/d/visible"}), entries);
    EXPECT_TRUE(Directory::sListEntries(base + "/none").empty());

    EXPECT_TRUE(Directory::sExists(base + "/d/visible"));
    EXPECT_FALSE(Directory::sIsDirectory(base + "/d/visible"));
    EXPECT_FALSE(Directory::sDelete(base + "/d", false).ok());
    EXPECT_TRUE(Directory::sDelete(base + "/d", true).ok());
    EXPECT_FALSE(Directory::sExists(base + "/d"));
}

TEST(DirectoryQueries, NeverCreatesOrRemovesTheRootItselfOrAnEmptyPath) {
    writeFile(testsupport::root() + "/precious", "keep");
    EXPECT_FALSE(Directory::sDelete(testsupport::root(), true).ok());
    EXPECT_FALSE(Directory::sDelete(testsupport::root() + "/", true).ok());
    EXPECT_FALSE(Directory::sDelete("", true).ok());
    EXPECT_FALSE(Directory::sCreateDirectory("").ok());
    EXPECT_EQ("keep", readFile(testsupport::root() + "/precious"));
}

TEST(LibconfigKey, ConvertsArbitraryTextIntoAValidSettingName) {
    for (const auto& c : std::vector<std::pair<std::string, std::string>>{
             {"5 ab.c", "key_5_ab_c"}, {"*x", "*x"}, {"", ""}, {"port_of_1-2", "port_of_1-2"}}) {
        std::string key = c.first;
        CommonUtils::sConvertToValidLibconfigKey(key);
        EXPECT_EQ(c.second, key) << c.first;
    }
}
