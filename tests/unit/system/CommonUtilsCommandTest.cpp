// Command helpers against real shell commands, and the string, time and lock helpers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "support/TestSupport.h"
#include "system/CommonUtils.h"

TEST(CommonUtilsCommands, OutputFormTrimsLineEndsAndBlanks) {
    std::string output = "stale";
    EXPECT_TRUE(CommonUtils::sCallSystem("echo hi", output));
    EXPECT_EQ("hi", output);
    EXPECT_TRUE(CommonUtils::sCallSystem("printf '\\r\\n  two words \\r\\n\\n'", output));
    EXPECT_EQ("two words", output);
    // A failing command that prints nothing still counts as started.
    EXPECT_TRUE(CommonUtils::sCallSystem("false", output));
    EXPECT_EQ("", output);

    EXPECT_EQ(7, CommonUtils::sCallPopenWithOutput("echo ' seven '; exit 7", output));
    EXPECT_EQ("seven", output);
    // Output longer than one 128-byte read arrives whole.
    EXPECT_EQ(0, CommonUtils::sCallPopenWithOutput("printf 'x%.0s' $(seq 1 300)", output));
    EXPECT_EQ(std::string(300, 'x'), output);
    // The form without output still reads it to the end: a command that
    // prints much is not killed by a closed pipe, so its own status counts.
    EXPECT_EQ(5, CommonUtils::sCallPopenNoOutput("printf 'x%.0s' $(seq 1 100000); exit 5"));
}

TEST(CommonUtilsStrings, SplittingKeepsOrMergesEmptyPieces) {
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), CommonUtils::splitStringTokenCompress("a,,b", ","));
    EXPECT_EQ((std::vector<std::string>{"a", "", "b"}), CommonUtils::splitString("a,,b", ","));
    EXPECT_EQ((std::vector<std::string>{"", "a", "b", ""}), CommonUtils::splitStringTokenCompress(";a; ;b;", "; "));
    std::set<std::string> pieces;
    CommonUtils::splitString(pieces, "b a,b,,c", ", ");
    EXPECT_EQ((std::set<std::string>{"a", "b", "c"}), pieces);
}

TEST(CommonUtilsStrings, TrimCaseAndNumbers) {
    char text[] = "  a   b  ";
    CommonUtils::sTrimAll(text);
    EXPECT_STREQ("a b ", text);
    char blanks[] = "   ";
    CommonUtils::sTrimAll(blanks);
    EXPECT_STREQ("", blanks);

    EXPECT_EQ("mixed-case 1", CommonUtils::sToLower("MiXed-CASE 1"));
    EXPECT_TRUE(CommonUtils::startWith("/EXTDISKS/sda1", "/extdisks"));
    EXPECT_TRUE(CommonUtils::endWith("photo.JPG", ".jpg"));
    EXPECT_TRUE(CommonUtils::startWith("anything", ""));
    EXPECT_FALSE(CommonUtils::startWith("ab", "abc"));
    EXPECT_FALSE(CommonUtils::endWith("abc", "b"));

    const unsigned long long fallback = 42;
    EXPECT_EQ(1234ULL, CommonUtils::lexicalCast<unsigned long long>(std::string("1234"), fallback));
    EXPECT_EQ(42ULL, CommonUtils::lexicalCast<unsigned long long>(std::string("12a"), fallback));
    EXPECT_EQ(42ULL, CommonUtils::lexicalCast<unsigned long long>(std::string(""), fallback));
    EXPECT_EQ(42ULL, CommonUtils::lexicalCast<unsigned long long>(std::string("18446744073709551616"), fallback));
    EXPECT_EQ(18446744073709551615ULL, CommonUtils::lexicalCast<unsigned long long>(std::string("-1"), fallback));

    EXPECT_TRUE(CommonUtils::sIsHttpCodeSucceed(200));
    EXPECT_TRUE(CommonUtils::sIsHttpCodeSucceed(206));
    EXPECT_FALSE(CommonUtils::sIsHttpCodeSucceed(204));
}

TEST(CommonUtilsStrings, FormattingAndTime) {
    char* text = nullptr;
    EXPECT_EQ(7, CommonUtils::xasprintf(&text, "%s-%03d", "abc", 7));
    ASSERT_NE(nullptr, text);
    EXPECT_STREQ("abc-007", text);
    free(text);

    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ("2001-09-09T01:46:40", CommonUtils::sConvertTimeFormat(1000000000L));
    const long long now = std::stoll(CommonUtils::sGetNowTimeStamp());
    EXPECT_LE(std::llabs(now - static_cast<long long>(time(nullptr))), 2);
}

TEST(CommonUtilsFiles, IsFileAndAdvisoryLocks) {
    const std::string dir = testsupport::makeScratchDir("locks");
    const std::string file = dir + "/f";
    testsupport::writeFile(file, "x");
    EXPECT_TRUE(CommonUtils::sIsFile(file));
    EXPECT_FALSE(CommonUtils::sIsFile(dir));
    EXPECT_FALSE(CommonUtils::sIsFile(dir + "/missing"));

    const int fd = open(file.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    struct flock lock;
    ASSERT_EQ(0, CommonUtils::slockFileLock(lock, F_WRLCK, fd, file));

    // Another process must not get the lock while this one holds it, and its
    // descriptor is closed on failure.
    EXPECT_EQ(0, testsupport::inChildProcess([&file] {
                  const int other = open(file.c_str(), O_RDWR);
                  struct flock theirs;
                  const int result = CommonUtils::slockFileLock(theirs, F_WRLCK, other, file);
                  return result == -1 && fcntl(other, F_GETFD) == -1 ? 0 : 1;
              }));

    EXPECT_EQ(0, CommonUtils::sUnlockFileLock(lock, fd, file));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));  // closed after unlocking
    struct flock again;
    EXPECT_EQ(-1, CommonUtils::sUnlockFileLock(again, fd, file));  // nothing left to unlock
}
