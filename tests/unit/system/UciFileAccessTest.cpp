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

TEST(UciLookup, NamedAndIndexedSectionsMissingPartsAndPathsThroughTheRoot) {
    testsupport::writeFile(underRoot("/etc/config/network"), kNetwork);
    testsupport::writeFile(underRoot("/opt/v1.2/fw"), "config version 'version'\n\toption ROM '9.9.9'\n");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"network.loopback.ifname", "lo"},
        {"network.lan.ifname", "eth0 eth1"},
        {"network.lan.ipaddr", "192.168.31.1"},
        {"network.lan.quoted", "it's"},
        // A second block of the same name adds to the first.
        {"network.lan.proto", "static"},
        {"network.@switch[0].name", "switch0"},
        {"network.@switch[-1].name", "switch1"},
        {"network.@interface[0].ifname", "lo"},
        {"network.@switch[2].name", ""},
        // A list is not a string option.
        {"network.lan.dns", ""},
        {"network.lan.nosuch", ""},
        {"network.wan.ifname", ""},
        {"network.lan", ""},
        {"nosuchconfig.lan.ifname", ""},
        {"", ""},
        {"network", ""},
        // Absolute configuration paths go through the root.
        {"/opt/v1.2/fw.version.ROM", "9.9.9"},
        {"/opt/v1.2/missing.version.ROM", ""}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, CommonUtils::sUciGet(c.first)) << c.first;
    }
}
