// Look-ups in UCI files in the extended syntax.
#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "system/CommonUtils.h"

using testsupport::underRoot;

namespace {

const char* const kNetwork =
    "# comment line\n"
    "config interface 'loopback'\n"
    "\toption ifname 'lo'\n"
    "\n"
    "config interface lan  # trailing comment\n"
    "\toption ifname \"eth0 eth1\"\n"
    "\toption ipaddr 192.168.31.1\n"
    "\tlist dns '8.8.8.8'\n"
    "\toption quoted 'it'\\''s'\n"
    "\n"
    "config switch\n"
    "\toption name 'switch0'\n"
    "\n"
    "config switch\n"
    "\toption name 'switch1'\n"
    "\n"
    "config interface 'lan'\n"
    "\toption proto 'static'\n";

}  // namespace

TEST(UciLookup, NamedAndIndexedSections) {
    testsupport::writeFile(underRoot("/etc/config/network"), kNetwork);
    EXPECT_EQ("lo", CommonUtils::sUciGet("network.loopback.ifname"));
    EXPECT_EQ("eth0 eth1", CommonUtils::sUciGet("network.lan.ifname"));
    EXPECT_EQ("192.168.31.1", CommonUtils::sUciGet("network.lan.ipaddr"));
    EXPECT_EQ("it's", CommonUtils::sUciGet("network.lan.quoted"));
    // A second block of the same name adds to the first.
    EXPECT_EQ("static", CommonUtils::sUciGet("network.lan.proto"));
    EXPECT_EQ("switch0", CommonUtils::sUciGet("network.@switch[0].name"));
    EXPECT_EQ("switch1", CommonUtils::sUciGet("network.@switch[-1].name"));
    EXPECT_EQ("lo", CommonUtils::sUciGet("network.@interface[0].ifname"));
    EXPECT_EQ("", CommonUtils::sUciGet("network.@switch[2].name"));
}

TEST(UciLookup, MissingPartsAndListsGiveEmpty) {
    testsupport::writeFile(underRoot("/etc/config/network"), kNetwork);
    EXPECT_EQ("", CommonUtils::sUciGet("network.lan.dns"));  // a list, not a string option
    EXPECT_EQ("", CommonUtils::sUciGet("network.lan.nosuch"));
    EXPECT_EQ("", CommonUtils::sUciGet("network.wan.ifname"));
    EXPECT_EQ("", CommonUtils::sUciGet("network.lan"));
    EXPECT_EQ("", CommonUtils::sUciGet("nosuchconfig.lan.ifname"));
    EXPECT_EQ("", CommonUtils::sUciGet(""));
    EXPECT_EQ("", CommonUtils::sUciGet("network"));
}

TEST(UciLookup, AbsoluteConfigPathsGoThroughTheRoot) {
    testsupport::writeFile(underRoot("/opt/v1.2/fw"), "config version 'version'\n\toption ROM '9.9.9'\n");
    EXPECT_EQ("9.9.9", CommonUtils::sUciGet("/opt/v1.2/fw.version.ROM"));
    EXPECT_EQ("", CommonUtils::sUciGet("/opt/v1.2/missing.version.ROM"));
}
