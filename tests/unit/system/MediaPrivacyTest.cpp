#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <pthread.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "storage/Directory.h"
#include "storage/File.h"
#include "support/TestSupport.h"
#include "system/CommandRunner.h"
#include "system/CommonUtils.h"

using testsupport::readFile;
using testsupport::underRoot;
using testsupport::writeFile;

namespace {

const char* const kMac = "AA:BB:CC:DD:EE:01";
const char* const kOtherMac = "AA:BB:CC:DD:EE:02";

std::string md5Hex(const std::string& text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr);
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        char pair[3];
        snprintf(pair, sizeof(pair), "%02x", digest[i]);
        hex += pair;
    }
    return hex;
}

void writeMacFilter(const std::string& content) {
    writeFile(underRoot("/etc/config/macfilter"), content);
}

std::string section(const std::string& mac, const std::string& options, bool attributeFirst) {
    const std::string macLine = "\toption mac '" + mac + "'\n";
    return "config mac\n" + (attributeFirst ? options + macLine : macLine + options);
}

// Plays the shell's part for "command > file": writes the scripted answer to the file.
class RedirectingRunner : public datacenter::CommandRunner {
public:
    RedirectingRunner(int exitCode, std::string answer) : exitCode_(exitCode), answer_(std::move(answer)) {}
    int runShell(const std::string& command) override {
        commands.push_back(command);
        const std::string::size_type arrow = command.rfind("> ");
        if (arrow != std::string::npos) {
            writeFile(command.substr(arrow + 2), answer_);
        }
        return exitCode_ << 8;
    }
    bool runPipe(const std::string&, std::string&, int&) override { return false; }
    std::vector<std::string> commands;

private:
    int exitCode_;
    std::string answer_;
};

}  // namespace

TEST(MediaPrivacyTest, WhiteListIsRewrittenOnlyWhenItExists) {
    const std::string list = underRoot("/data/etc/datacenter/whitelist");
    CommonUtils::sAuthAccessPrivacyData(kMac, true);
    EXPECT_FALSE(datacenter::File::sExists(list));

    writeFile(list, std::string("first\n") + kMac + " extra\nlast\n");
    CommonUtils::sAuthAccessPrivacyData(kMac, true);  // already listed: unchanged
    EXPECT_EQ(std::string("first\n") + kMac + " extra\nlast\n", readFile(list));

    CommonUtils::sAuthAccessPrivacyData(kOtherMac, true);
    EXPECT_EQ(std::string("first\n") + kMac + " extra\nlast\n" + kOtherMac + "\n", readFile(list));

    CommonUtils::sAuthAccessPrivacyData(kMac, false);
    EXPECT_EQ(std::string("first\nlast\n") + kOtherMac + "\n", readFile(list));

    CommonUtils::sAuthAccessPrivacyData("", false);  // would match every line
    EXPECT_EQ(std::string("first\nlast\n") + kOtherMac + "\n", readFile(list));
}

TEST(MediaPrivacyTest, MacFilterAnswersPerDeviceSection) {
    EXPECT_EQ(0, find_mac_attribute_from_macfilter(kMac, "pridisk"));  // no file: default
    EXPECT_EQ(1, find_mac_attribute_from_macfilter(kMac, "lan"));
    EXPECT_EQ(1, find_mac_attribute_from_macfilter(kMac, "LANaccess"));

    for (const bool attributeFirst : {false, true}) {
        SCOPED_TRACE(attributeFirst ? "attribute before mac" : "attribute after mac");
        writeMacFilter("config global\n\toption pridisk 'yes'\n" +
                       section(kOtherMac, "\toption pridisk 'yes'\n\toption lan 'no'\n", attributeFirst) +
                       section("aa:bb:cc:dd:ee:01", "  option pridisk 'YES'\r\n\toption lan 'no'\n", attributeFirst) +
                       "config rule\n\toption pridisk 'no'\n");
        EXPECT_EQ(1, find_mac_attribute_from_macfilter(kMac, "pridisk"));
        EXPECT_EQ(0, find_mac_attribute_from_macfilter(kMac, "lan"));
        EXPECT_EQ(1, find_mac_attribute_from_macfilter(kOtherMac, "pridisk"));
        // A device without the attribute falls back to the default.
        EXPECT_EQ(0, find_mac_attribute_from_macfilter(kMac, "wan"));
        EXPECT_EQ(1, find_mac_attribute_from_macfilter("AA:BB:CC:DD:EE:03", "lan"));
    }

    // Options after another kind of section do not belong to the device.
    writeMacFilter(section(kMac, "", false) + "config rule\n\toption pridisk 'yes'\n");
    EXPECT_EQ(0, find_mac_attribute_from_macfilter(kMac, "pridisk"));
}

TEST(MediaPrivacyTest, PrivacyAccessNamesDevicesByTheHashOfTheirMac) {
    writeMacFilter(section("AA:BB:CC:DD:EE:01", "\toption pridisk 'yes'\n", true) +
                   section("AA:BB:CC:DD:EE:02", "\toption pridisk 'no'\n", false));
    const std::string allowed = md5Hex("aa:bb:cc:dd:ee:01");
    const std::string refused = md5Hex("aa:bb:cc:dd:ee:02");
    EXPECT_EQ(0, CommonUtils::sMacCompare("AA:BB:CC:DD:EE:01", allowed.c_str(), allowed.size()));

    EXPECT_TRUE(CommonUtils::sIsCanAccessPrivacyData(allowed));
    std::string upper = allowed;
    for (char& c : upper) {
        c = static_cast<char>(toupper(c));
    }
    EXPECT_TRUE(CommonUtils::sIsCanAccessPrivacyData(upper));
    EXPECT_FALSE(CommonUtils::sIsCanAccessPrivacyData(refused));
    EXPECT_FALSE(CommonUtils::sIsCanAccessPrivacyData(md5Hex("AA:BB:CC:DD:EE:01")));  // not lower-cased first
    EXPECT_FALSE(CommonUtils::sIsCanAccessPrivacyData(""));
}

TEST(MediaPrivacyTest, MacFilterCommandReadsTheAnswerFileAndRemovesIt) {
    const std::string answerFile =
        underRoot("/tmp/macfilter_access_control.tmp.") + std::to_string(static_cast<unsigned long>(pthread_self()));
    datacenter::Directory::sCreateDirectory(underRoot("/tmp"));
    struct Case {
        int exitCode;
        std::string answer;
        bool expected;
    };
    const std::vector<Case> cases = {
        {0, "LAN=no pridisk=YES\nwan=yes\n", true},
        {0, "lan=no pridisk=no\n", false},
        {0, "pridisk=no\npridisk=yes\n", false},  // only the first line counts
        {1, "pridisk=yes\n", false},
    };
    for (const Case& c : cases) {
        auto runner = std::make_shared<RedirectingRunner>(c.exitCode, c.answer);
        datacenter::CommandRunner::sInstall(runner);
        EXPECT_EQ(c.expected, find_mac_attribute_from_macfilter_command(kMac, "pridisk")) << c.answer;
        datacenter::CommandRunner::sInstall(nullptr);
        ASSERT_EQ(1u, runner->commands.size());
        EXPECT_EQ(std::string("/usr/sbin/sysapi macfilter get 'mac=") + kMac + "' > " + answerFile,
                  runner->commands[0]);
        EXPECT_FALSE(datacenter::File::sExists(answerFile));
    }

    auto runner = std::make_shared<RedirectingRunner>(0, "pridisk=yes\n");
    datacenter::CommandRunner::sInstall(runner);
    EXPECT_FALSE(find_mac_attribute_from_macfilter_command("x' ; reboot ; '", "pridisk"));
    EXPECT_FALSE(find_mac_attribute_from_macfilter_command(std::string(300, 'a'), "pridisk"));
    datacenter::CommandRunner::sInstall(nullptr);
    EXPECT_TRUE(runner->commands.empty());
}
