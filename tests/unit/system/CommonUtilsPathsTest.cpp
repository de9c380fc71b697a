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

std::string removeSlashes(const std::string& path) {
    return CommonUtils::sRemoveSuffix(path, '/');
}

}  // namespace

TEST(CommonUtilsPathsTest, QuotesEscapesAndSlashesOfPathTexts) {
    typedef std::string (*Transform)(const std::string&);
    const std::vector<std::pair<Transform, std::vector<TextCase>>> tables = {
        // One layer of matching quotes goes.
        {CommonUtils::sRemoveMarks,
         {{"'word'", "word"},
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
          {"plain", "plain"}}},
        {CommonUtils::sGetEscapedPath,
         {{"a b(1).mp4", "a\\ b\\(1\\).mp4"}, {"*?", "\\*\\?"}, {"/plain/path", "/plain/path"}, {"", ""}}},
        // The trailing-slash helpers leave short paths alone.
        {CommonUtils::sUnifyPathStyle,
         {{"/data/", "/data"}, {"/data", "/data"}, {"/", "/"}, {"", ""}, {"a/", "a"}, {"/d//", "/d/"}}},
        {CommonUtils::sCompleteDirPath, {{"/data", "/data/"}, {"/data/", "/data/"}, {"/", "/"}, {"a", "a"}}},
        {removeSlashes, {{"/mnt/sda1///", "/mnt/sda1"}, {"///", "/"}, {"/", "/"}, {"", ""}}},
    };
    for (size_t table = 0; table < tables.size(); ++table) {
        for (const TextCase& c : tables[table].second) {
            EXPECT_EQ(c.expected, tables[table].first(c.input)) << "table " << table << ": " << c.input;
        }
    }
    for (const char c : std::string("\\:*?\"<>|;")) {
        EXPECT_TRUE(CommonUtils::sIsContainInvalidChar(std::string("name") + c + "x")) << c;
    }
    for (const std::string ok : {"", "a b(1).mp4", "dir/sub/file.txt", "照片-副本"}) {
        EXPECT_FALSE(CommonUtils::sIsContainInvalidChar(ok)) << ok;
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

TEST(CommonUtilsPathsTest, DuplicateNamesAreTheFirstFreeNumberedOrMarkedCopy) {
    typedef std::string (*Namer)(const std::string&);
    struct Case {
        Namer namer;
        std::vector<std::string> existing;  // files, or folders when ending in "/"
        std::string input;
        std::string expected;
    };
    const Namer numbered = CommonUtils::sGetDuplicateFileName;
    const Namer marked = CommonUtils::sGetDuplicatePath;
    const std::vector<Case> cases = {
        {numbered, {}, "a.jpg", "a.jpg"},
        {numbered, {"a.jpg"}, "a.jpg", "a(1).jpg"},
        {numbered, {"a.jpg", "a(1).jpg"}, "a.jpg", "a(2).jpg"},
        {numbered, {"a.jpg", "a(1).jpg", "a(7).jpg"}, "a(7).jpg", "a(2).jpg"},
        {numbered, {"a(b).jpg"}, "a(b).jpg", "a(b)(1).jpg"},
        {numbered, {"folder/"}, "folder", "folder(1)"},
        {marked, {}, "x.txt", "x.txt"},
        {marked, {"x.txt"}, "x.txt", "x-副本.txt"},
        {marked, {"x.txt", "x-副本.txt"}, "x.txt", "x-副本2.txt"},
        {marked, {"x.txt", "x-副本.txt", "x-副本2.txt"}, "x-副本.txt", "x-副本3.txt"},
        // A numbered copy as input starts again from the unnumbered copy name.
        {marked, {"x-副本3.txt"}, "x-副本3.txt", "x-副本.txt"},
        // A marker followed by something other than digits is part of the name.
        {marked, {"y-副本a.txt"}, "y-副本a.txt", "y-副本a-副本.txt"},
        {marked, {"photos/"}, "photos", "photos-副本"},
    };
    for (const Case& c : cases) {
        const std::string dir = testsupport::makeScratchDir("dup") + "/";
        for (const std::string& name : c.existing) {
            if (name.back() == '/') {
                datacenter::Directory::sCreateDirectory(dir + name);
            } else {
                writeFile(dir + name, "x");
            }
        }
        EXPECT_EQ(dir + c.expected, c.namer(dir + c.input)) << c.input;
    }
    EXPECT_EQ("", CommonUtils::sGetDuplicatePath(""));
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
