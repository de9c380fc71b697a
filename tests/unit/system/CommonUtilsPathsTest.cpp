#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "storage/Directory.h"
#include "support/TestSupport.h"
#include "system/CommonUtils.h"
#include "system/DeviceMountInfo.h"

using testsupport::writeFile;

namespace {

struct TextCase {
    std::string input;
    std::string expected;
};

}  // namespace

TEST(CommonUtilsPathsTest, RemoveMarksStripsOneLayerOfMatchingQuotes) {
    const std::vector<TextCase> cases = {
        {"'word'", "word"},
        {"\"word\"", "word"},
        {"'word", "'word"},
        {"word'", "word'"},
        {"\"word", "\"word"},
        {"'\"word\"'", "\"word\""},
        {"\"'word'\"", "'word'"},
        {"'it's'", "it's"},
        {"''", ""},
        {"'", "'"},
        {"", ""},
        {"plain", "plain"},
    };
    for (const TextCase& c : cases) {
        EXPECT_EQ(c.expected, CommonUtils::sRemoveMarks(c.input)) << c.input;
    }
}

TEST(CommonUtilsPathsTest, InvalidCharactersAndEscaping) {
    for (const char c : std::string("\\:*?\"<>|;")) {
        EXPECT_TRUE(CommonUtils::sIsContainInvalidChar(std::string("name") + c + "x")) << c;
    }
    for (const std::string ok : {"", "a b(1).mp4", "dir/sub/file.txt", "照片-副本"}) {
        EXPECT_FALSE(CommonUtils::sIsContainInvalidChar(ok)) << ok;
    }

    const std::vector<TextCase> escapes = {
        {"a b(1).mp4", "a\\ b\\(1\\).mp4"},
        {"*?", "\\*\\?"},
        {"/plain/path", "/plain/path"},
        {"", ""},
    };
    for (const TextCase& c : escapes) {
        EXPECT_EQ(c.expected, CommonUtils::sGetEscapedPath(c.input)) << c.input;
    }
}

TEST(CommonUtilsPathsTest, TrailingSlashHelpersLeaveShortPathsAlone) {
    const std::vector<TextCase> unify = {{"/data/", "/data"}, {"/data", "/data"}, {"/", "/"}, {"", ""},
                                         {"a/", "a"},         {"/d//", "/d/"}};
    for (const TextCase& c : unify) {
        EXPECT_EQ(c.expected, CommonUtils::sUnifyPathStyle(c.input)) << c.input;
    }
    const std::vector<TextCase> complete = {{"/data", "/data/"}, {"/data/", "/data/"}, {"/", "/"}, {"a", "a"}};
    for (const TextCase& c : complete) {
        EXPECT_EQ(c.expected, CommonUtils::sCompleteDirPath(c.input)) << c.input;
    }
    const std::vector<TextCase> remove = {{"/mnt/sda1///", "/mnt/sda1"}, {"///", "/"}, {"/", "/"}, {"", ""}};
    for (const TextCase& c : remove) {
        EXPECT_EQ(c.expected, CommonUtils::sRemoveSuffix(c.input, '/')) << c.input;
    }
}

TEST(CommonUtilsPathsTest, AbsolutePathResolvesDotsAndRejectsClimbingOut) {
    const std::vector<TextCase> resolved = {
        {"/a/./b/../c/", "/a/c/"}, {"/a//b", "/a/b"},        {"a/b/..", "a"},
        {"a/./b/", "a/b/"},        {"/a/..", "/"},           {"/", "/"},
        {"/a/b/", "/a/b/"},        {"/a/..b/c", "/a/..b/c"},
    };
    for (const TextCase& c : resolved) {
        std::string out = "stale";
        EXPECT_TRUE(CommonUtils::sGetAbsolutePath(c.input, out)) << c.input;
        EXPECT_EQ(c.expected, out) << c.input;
    }
    for (const std::string bad : {"/../a", "..", "a/../..", "/a/.../b", "/a/....", "/a/b/../../.."}) {
        std::string out;
        EXPECT_FALSE(CommonUtils::sGetAbsolutePath(bad, out)) << bad;
    }
}

TEST(CommonUtilsPathsTest, DuplicateFileNameNumbersCopies) {
    const std::string dir = testsupport::makeScratchDir("dup");
    EXPECT_EQ(dir + "/a.jpg", CommonUtils::sGetDuplicateFileName(dir + "/a.jpg"));  // free

    writeFile(dir + "/a.jpg", "x");
    EXPECT_EQ(dir + "/a(1).jpg", CommonUtils::sGetDuplicateFileName(dir + "/a.jpg"));
    writeFile(dir + "/a(1).jpg", "x");
    EXPECT_EQ(dir + "/a(2).jpg", CommonUtils::sGetDuplicateFileName(dir + "/a.jpg"));

    writeFile(dir + "/a(7).jpg", "x");
    EXPECT_EQ(dir + "/a(2).jpg", CommonUtils::sGetDuplicateFileName(dir + "/a(7).jpg"));

    writeFile(dir + "/a(b).jpg", "x");
    EXPECT_EQ(dir + "/a(b)(1).jpg", CommonUtils::sGetDuplicateFileName(dir + "/a(b).jpg"));

    datacenter::Directory::sCreateDirectory(dir + "/folder");
    EXPECT_EQ(dir + "/folder(1)", CommonUtils::sGetDuplicateFileName(dir + "/folder"));
}

TEST(CommonUtilsPathsTest, DuplicatePathUsesTheCopyMarker) {
    const std::string dir = testsupport::makeScratchDir("copies");
    EXPECT_EQ("", CommonUtils::sGetDuplicatePath(""));
    EXPECT_EQ(dir + "/x.txt", CommonUtils::sGetDuplicatePath(dir + "/x.txt"));  // free

    writeFile(dir + "/x.txt", "x");
    EXPECT_EQ(dir + "/x-副本.txt", CommonUtils::sGetDuplicatePath(dir + "/x.txt"));
    writeFile(dir + "/x-副本.txt", "x");
    EXPECT_EQ(dir + "/x-副本2.txt", CommonUtils::sGetDuplicatePath(dir + "/x.txt"));
    writeFile(dir + "/x-副本2.txt", "x");
    EXPECT_EQ(dir + "/x-副本3.txt", CommonUtils::sGetDuplicatePath(dir + "/x-副本.txt"));

    // A numbered copy as input starts again from the unnumbered copy name.
    const std::string other = testsupport::makeScratchDir("copies2");
    writeFile(other + "/x-副本3.txt", "x");
    EXPECT_EQ(other + "/x-副本.txt", CommonUtils::sGetDuplicatePath(other + "/x-副本3.txt"));
    // A marker followed by something other than digits is part of the name.
    writeFile(other + "/y-副本a.txt", "x");
    EXPECT_EQ(other + "/y-副本a-副本.txt", CommonUtils::sGetDuplicatePath(other + "/y-副本a.txt"));

    datacenter::Directory::sCreateDirectory(other + "/photos");
    EXPECT_EQ(other + "/photos-副本", CommonUtils::sGetDuplicatePath(other + "/photos"));
}

TEST(CommonUtilsPathsTest, FileTimesAndSizes) {
    const std::string dir = testsupport::makeScratchDir("times");
    const std::string file = dir + "/f.bin";
    writeFile(file, std::string(1234, 'z'));
    EXPECT_EQ(1234, CommonUtils::sGetFileSize(file));
    EXPECT_EQ(1234, CommonUtils::sGetFileStat(file).st_size);

    CommonUtils::sSetFileModifyTime(file, 1420070400);
    EXPECT_EQ(1420070400, CommonUtils::sGetFileModifyTime(file));
    EXPECT_EQ(1420070400, CommonUtils::sGetFileStat(file).st_atime);

    EXPECT_EQ(0, CommonUtils::sGetFileSize(dir + "/missing"));
    EXPECT_EQ(0, CommonUtils::sGetFileModifyTime(dir + "/missing"));
}

TEST(CommonUtilsPathsTest, PrimaryDiskMountsCannotBeUnmounted) {
    const std::string device = testsupport::underRoot("/devices/sda1");
    writeFile(device, "");
    writeFile(testsupport::underRoot("/tmp/userdisk_info"), "PRIMARY=" + testsupport::underRoot("/devices/sda") + "\n");
    const std::string table = testsupport::underRoot("/mounts");
    writeFile(table, device + " /userdisk ext4 rw 0 0\n" + testsupport::underRoot("/devices/sdb1") +
                         " /extdisks/sdb1 ext4 rw 0 0\n");
    datacenter::DeviceMountInfo::sSetMountTablePath(table);

    for (const std::string& path : {std::string(""), std::string("/"), std::string("///"), std::string("/userdisk"),
                                    std::string("/userdisk//"), device, device + "/"}) {
        EXPECT_FALSE(CommonUtils::sIsCanUmountDevice(path)) << path;
    }
    for (const std::string path : {"/extdisks/sdb1", "/extdisks/sdb1/", "/userdisk/data", "/dev/sdc1"}) {
        EXPECT_TRUE(CommonUtils::sIsCanUmountDevice(path)) << path;
    }
    datacenter::DeviceMountInfo::sSetMountTablePath("");
}
