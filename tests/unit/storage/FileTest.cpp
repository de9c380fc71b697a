#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <boost/thread/thread.hpp>
#include <cerrno>
#include <cstdio>

#include "storage/File.h"
#include "support/TestSupport.h"

using datacenter::DiskSpaceInfo;
using datacenter::File;
using testsupport::readFile;
using testsupport::writeFile;

namespace {

// Restores the real seams whatever the test did.
struct SeamReset {
    ~SeamReset() {
        File::sSetDiskSpaceQuery(nullptr);
        File::sSetRenameCall(nullptr);
    }
};

void pretendAvailable(uint64_t bytes) {
    File::sSetDiskSpaceQuery([bytes](const std::string&) {
        DiskSpaceInfo info;
        info.capacity = info.free = info.available = bytes;
        return info;
    });
}

}  // namespace

TEST(FileCopy, KeepsTenMebibytesFreeOnTheDestination) {
    SeamReset reset;
    const std::string dir = testsupport::makeScratchDir("reserve");
    writeFile(dir + "/one", "x");

    pretendAvailable(10485760);
    EXPECT_EQ(File::sCopyNoSpace, File::sRawCopyFile(dir + "/one", dir + "/copy"));
    EXPECT_FALSE(File::sExists(dir + "/copy"));

    pretendAvailable(10485761);
    EXPECT_EQ(File::sCopyOk, File::sRawCopyFile(dir + "/one", dir + "/copy"));
    EXPECT_EQ("x", readFile(dir + "/copy"));
    struct stat st;
    ASSERT_EQ(0, stat((dir + "/copy").c_str(), &st));
    EXPECT_EQ(0777u, st.st_mode & 0777);
}

TEST(FileCopy, CopiesContentAcrossManyBlocksAndReportsOpenAndReadFailures) {
    const std::string dir = testsupport::makeScratchDir("blocks");
    std::string content;
    for (int i = 0; i < 5000; ++i) {
        content += static_cast<char>(i * 7);
    }
    writeFile(dir + "/src", content);
    EXPECT_EQ(File::sCopyOk, File::sRawCopyFile(dir + "/src", dir + "/dst"));
    EXPECT_EQ(content, readFile(dir + "/dst"));

    EXPECT_EQ(File::sCopyFailed, File::sRawCopyFile(dir + "/missing", dir + "/dst2"));
    // Reading a directory as a file fails at the first read, after a successful open.
    EXPECT_EQ(File::sCopyFailed, File::sRawCopyFile(dir, dir + ".copy"));
    ASSERT_EQ(0, mkdir((dir + "/isdir").c_str(), 0755));
    EXPECT_EQ(File::sCopyFailed, File::sRawCopyFile(dir + "/src", dir + "/isdir"));
    // A link or a second name of a file elsewhere in place of the copy: the
    // file is neither written, truncated nor made world-writable.
    writeFile(dir + "/secret", "root only");
    ASSERT_EQ(0, chmod((dir + "/secret").c_str(), 0600));
    ASSERT_EQ(0, symlink((dir + "/secret").c_str(), (dir + "/linked").c_str()));
    ASSERT_EQ(0, link((dir + "/secret").c_str(), (dir + "/hardlinked").c_str()));
    for (const char* planted : {"/linked", "/hardlinked"}) {
        EXPECT_EQ(File::sCopyFailed, File::sRawCopyFile(dir + "/src", dir + planted)) << planted;
        EXPECT_EQ("root only", readFile(dir + "/secret")) << planted;
        struct stat st;
        ASSERT_EQ(0, stat((dir + "/secret").c_str(), &st));
        EXPECT_EQ(0600u, st.st_mode & 0777) << planted;
    }
}

TEST(FileCopy, InterruptedCopyLeavesNoDestination) {
    const std::string dir = testsupport::makeScratchDir("interrupt");
    writeFile(dir + "/big", std::string(64 * 1024, 'b'));

    std::atomic<bool> go{false};
    int result = -100;
    boost::thread worker([&] {
        while (!go) {
        }
        result = File::sRawCopyFile(dir + "/big", dir + "/copy");
    });
    worker.interrupt();
    go = true;
    worker.join();

    EXPECT_EQ(File::sCopyInterrupted, result);
    EXPECT_FALSE(File::sExists(dir + "/copy"));
    EXPECT_TRUE(File::sExists(dir + "/big"));
}

TEST(FileMove, FallsBackToCopyAcrossFileSystems) {
    SeamReset reset;
    const std::string dir = testsupport::makeScratchDir("exdev");
    File::sSetRenameCall([](const char*, const char*) { return EXDEV; });

    writeFile(dir + "/a", "payload");
    const datacenter::ErrorCode moved = File::sMove(dir + "/a", dir + "/b");
    EXPECT_TRUE(moved.ok());
    EXPECT_FALSE(File::sExists(dir + "/a"));
    EXPECT_EQ("payload", readFile(dir + "/b"));

    // A copy that fails keeps the source where it was.
    writeFile(dir + "/c", "keep me");
    pretendAvailable(0);
    const datacenter::ErrorCode full = File::sMove(dir + "/c", dir + "/d");
    EXPECT_EQ(API_NO_SPACE, full.apiCode());
    EXPECT_EQ("keep me", readFile(dir + "/c"));

    pretendAvailable(1ULL << 40);
    EXPECT_EQ(API_FILE_OPEN_OR_WRITE_FAILED, File::sMove(dir + "/c", dir + "/missing/d").apiCode());
    EXPECT_TRUE(File::sExists(dir + "/c"));
}

TEST(FileMove, RenameErrorsOtherThanCrossDeviceAreReturnedAsIs) {
    const std::string dir = testsupport::makeScratchDir("move");
    writeFile(dir + "/a", "1");
    EXPECT_TRUE(File::sMove(dir + "/a", dir + "/b").ok());
    const datacenter::ErrorCode missing = File::sMove(dir + "/a", dir + "/c");
    EXPECT_FALSE(missing.ok());
    EXPECT_EQ(ENOENT, missing.systemError().value());
    EXPECT_EQ(API_SUCCESS, missing.apiCode());
}

TEST(FileQueries, DeleteLeavesDirectoriesAndSizesOnlyCountRegularFiles) {
    const std::string dir = testsupport::makeScratchDir("queries");
    writeFile(dir + "/f", "12345");
    EXPECT_TRUE(File::sExists(dir));
    EXPECT_EQ(5u, File::sGetFileSize(dir + "/f"));
    EXPECT_EQ(0u, File::sGetFileSize(dir));
    EXPECT_EQ(0u, File::sGetFileSize(dir + "/none"));

    EXPECT_TRUE(File::sDelete(dir + "/none").ok());
    EXPECT_TRUE(File::sDelete(dir + "/f").ok());
    EXPECT_FALSE(File::sExists(dir + "/f"));
}

TEST(FileAtomicWrite, ReplacesWholeFileKeepsModeAndLeavesNoTemporaries) {
    const std::string dir = testsupport::makeScratchDir("atomic");
    const std::string path = dir + "/cfg";
    ASSERT_TRUE(File::sWriteAtomically(path, std::string("first\n")));
    ASSERT_EQ(0, chmod(path.c_str(), 0600));
    ASSERT_TRUE(File::sWriteAtomically(path, std::string("second\n")));
    EXPECT_EQ("second\n", readFile(path));
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);

    // A writer that fails leaves the old content in place.
    EXPECT_FALSE(File::sWriteAtomically(path, [](FILE*) { return false; }));
    EXPECT_EQ("second\n", readFile(path));
    EXPECT_EQ("1\n", testsupport::runCommand("ls -A " + dir + " | wc -l").output);
}
