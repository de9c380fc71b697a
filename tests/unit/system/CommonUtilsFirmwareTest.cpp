// Firmware facts, country code, LAN address and partition space, answered by
// UCI files under the test root, the sim/ stand-ins or a recording runner.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include "support/PackageFactory.h"
#include "support/RecordingRunner.h"
#include "support/TestSupport.h"
#include "system/CommonUtils.h"

using testsupport::underRoot;
using testsupport::writeFile;

using testsupport::PackageFactory;

TEST(CommonUtilsFirmware, VersionComparisonAgainstTheRom) {
    // Without a version file no requirement is met.
    EXPECT_EQ("", CommonUtils::sGetRomVersion());
    EXPECT_FALSE(CommonUtils::sCheckIsLowerVersionThanCurrentRom("0.0.1"));
    PackageFactory::setFirmware("2.4.10", "release");
    EXPECT_EQ("2.4.10", CommonUtils::sGetRomVersion());
    EXPECT_EQ("release", CommonUtils::sGetRomChannel());
    for (const char* met : {"2.4.9", "2.4.10", "1.9.99"}) {
        EXPECT_TRUE(CommonUtils::sCheckIsLowerVersionThanCurrentRom(met)) << met;
    }
    for (const char* unmet : {"2.5.0", "2.4.11", "3.0.0", "2.4", "2.4.9.1"}) {
        EXPECT_FALSE(CommonUtils::sCheckIsLowerVersionThanCurrentRom(unmet)) << unmet;
    }
}

TEST(CommonUtilsFirmware, DeviceIdAndSerialNumber) {
    writeFile(underRoot("/etc/config/messaging"), "config deviceInfo 'deviceInfo'\n\toption DEVICE_ID \"dev-77\"\n");
    EXPECT_EQ("dev-77", CommonUtils::sGetDeviceId());
    writeFile(underRoot("/sim/nvram/SN"), "SN0042\n");
    EXPECT_EQ("SN0042", CommonUtils::sGetRomSN());
    EXPECT_NE(std::string::npos, testsupport::readFile(underRoot("/tmp/sim-commands.log")).find("nvram get SN\n"));
}

TEST(CommonUtilsCountry, CacheFileThenNvramOnReleaseFirmwareThenChina) {
    struct Case {
        const char* channel;
        const char* cache;  // the cache file's content, or none
        const char* nvram;  // nvram's answer, or none
        const char* expected;
        std::vector<std::string> commands;
    };
    const std::vector<Case> cases = {
        {"release", "code = \"DE\";\n", " US\r\n", "DE", {}},
        {"beta", nullptr, "US", "CN", {}},
        {"release", nullptr, " US\r\n", "US", {"nvram get CountryCode"}},
        {"release", "code = \"\";\n", "", "CN", {"nvram get CountryCode"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.channel) + " " + (c.cache ? c.cache : "no cache"));
        PackageFactory::setFirmware("2.4.10", c.channel);
        boost::filesystem::remove(underRoot("/tmp/commonutils.config.tmp"));
        if (c.cache) {
            writeFile(underRoot("/tmp/commonutils.config.tmp"), c.cache);
        }
        auto runner = testsupport::RecordingRunner::sInstall();
        if (c.nvram) {
            runner->answer("nvram get CountryCode", 0, c.nvram);
        }
        EXPECT_EQ(c.expected, CommonUtils::sGetCountryCode());
        EXPECT_EQ(c.commands, runner->commands());
    }
    // The real tool (the sim/ stand-in) is asked when the cache holds no code.
    writeFile(underRoot("/sim/nvram/CountryCode"), "JP\n");
    EXPECT_EQ("JP", CommonUtils::sGetCountryCode());
}

TEST(CommonUtilsRouter, LanAddressFromTheStatusReply) {
    EXPECT_EQ("", CommonUtils::sGetRouterIP());  // ubus knows no such object yet
    writeFile(underRoot("/sim/ubus/network.interface.lan.status"),
              "{\n  \"up\": true,\n  \"ipv4-address\": [\n    { \"address\": \"192.168.31.1\", \"mask\": 24 },\n"
              "    { \"address\": \"10.0.0.1\", \"mask\": 8 }\n  ]\n}\n");
    EXPECT_EQ("10.0.0.1", CommonUtils::sGetRouterIP());
    writeFile(underRoot("/sim/ubus/network.interface.lan.status"), "{ \"ipv4-address\": [] }");
    EXPECT_EQ("", CommonUtils::sGetRouterIP());
    writeFile(underRoot("/sim/ubus/network.interface.lan.status"), "not json");
    EXPECT_EQ("", CommonUtils::sGetRouterIP());
    EXPECT_NE(
        std::string::npos,
        testsupport::readFile(underRoot("/tmp/sim-commands.log")).find("ubus call network.interface.lan status\n"));
}

TEST(CommonUtilsPartition, SpaceFromTheMatchingDfLine) {
    auto runner = testsupport::RecordingRunner::sInstall();
    runner->answer("df | grep /userdisk", 0,
                   "/dev/sda1   1000  200   700  23% /userdisk/appdata\n"
                   "/dev/sda2   2000  300   1500 17% /userdisk\n");
    unsigned long long total = 1;
    unsigned long long available = 1;
    CommonUtils::sGetPartitionSpaceInfo("/userdisk", total, available);
    EXPECT_EQ(2000ULL * 1024, total);
    EXPECT_EQ(1500ULL * 1024, available);
    EXPECT_EQ((std::vector<std::string>{"df | grep /userdisk"}), runner->commands());

    CommonUtils::sGetPartitionSpaceInfo("/userdisk/data", total, available);
    EXPECT_EQ(0ULL, total);
    EXPECT_EQ(0ULL, available);
}
