// File operations that must not lose data: a copy never overwrites a file
// under a duplicate name, and a failed read is a failed copy.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include "storage/Directory.h"
#include "storage/File.h"
#include "support/TestSupport.h"

using datacenter::Directory;
using datacenter::File;
using testsupport::readFile;
using testsupport::writeFile;

TEST(FileDataLoss, ADuplicateNameIsOneThatNoFileHasYet) {
    const std::string source = testsupport::makeScratchDir("src");
    const std::string target = testsupport::makeScratchDir("dst");
    writeFile(source + "/a(x).txt", "new");
    writeFile(target + "/a(x).txt", "first");
    writeFile(target + "/a(x)(1).txt", "second");

    ASSERT_TRUE(Directory::sCopyDirectory(source, target).ok());
    EXPECT_EQ("first", readFile(target + "/a(x).txt"));
    EXPECT_EQ("second", readFile(target + "/a(x)(1).txt"));
    EXPECT_EQ("new", readFile(target + "/a(x)(2).txt"));
}

TEST(FileDataLoss, AReadErrorFailsTheCopyAndACrossDeviceMoveStillMoves) {
    const std::string dir = testsupport::makeScratchDir("unreadable");
    // Reading a directory as a file fails at the first read, after a successful open.
    EXPECT_EQ(File::sCopyFailed, File::sRawCopyFile(dir, dir + ".copy"));

    const std::string source = testsupport::makeScratchDir("move") + "/file";
    writeFile(source, "data");
    File::sSetRenameCall([](const char*, const char*) { return EXDEV; });
    EXPECT_TRUE(File::sMove(source, source + ".moved").ok());
    EXPECT_EQ("data", readFile(source + ".moved"));
    EXPECT_FALSE(boost::filesystem::exists(source));
    File::sSetRenameCall(File::RenameCall());
}
