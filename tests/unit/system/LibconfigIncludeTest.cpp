// Files written by plugins are read without following "@include" and without
// blocking on special files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/TestSupport.h"
#include "system/ConfigInfo.h"
#include "system/ConfigUtils.h"
#include "system/LibconfigFile.h"

using datacenter::ConfigInfo;
using datacenter::LibconfigFile;
using testsupport::writeFile;

TEST(LibconfigInclude, DirectivesAreFoundWhereverTheParserWouldTakeThem) {
    EXPECT_TRUE(LibconfigFile::sHasInclude("@include \"/etc/shadow\"\n"));
    EXPECT_TRUE(LibconfigFile::sHasInclude("a = \"1\";\n  \t@include \"x\"\n"));
    EXPECT_TRUE(LibconfigFile::sHasInclude("a = 1;\r\n@INCLUDE \"x\""));
    EXPECT_FALSE(LibconfigFile::sHasInclude("note = \"mail me @include.example\";\n"));
    EXPECT_FALSE(LibconfigFile::sHasInclude(""));
}

TEST(LibconfigInclude, IncludedSettingsNeverReachTheReader) {
    const std::string dir = testsupport::makeScratchDir("include");
    writeFile(dir + "/secret.cfg", "plugin_id = \"stolen\";\nsecret = \"root only\";\n");
    const std::string manifest = dir + "/manifest";
    writeFile(manifest, "name = \"x\";\n@include \"" + dir + "/secret.cfg\"\n");
    ConfigInfo* config = ConfigInfo::sGetInstance();
    EXPECT_EQ("", config->getConfigFromFile(manifest, "secret"));
    EXPECT_EQ("", config->getConfigFromFile(manifest, "name"));
    EXPECT_EQ("", config->getConfigFromString("@include \"" + dir + "/secret.cfg\"\n", "plugin_id"));
    EXPECT_EQ("", ConfigUtils(manifest).getConfigFromKey("secret"));
    // A write keeps the reference out of the file instead of copying the included settings in.
    config->setConfigToFile(manifest, "status", "3");
    EXPECT_EQ(std::string::npos, testsupport::readFile(manifest).find("root only"));
    std::string error;
    libconfig::Config parsed;
    EXPECT_FALSE(LibconfigFile::sRead(parsed, manifest, error));
    EXPECT_NE(std::string::npos, error.find("@include")) << error;
}

TEST(LibconfigInclude, AFifoInPlaceOfAFileReadsAsNoValue) {
    const std::string fifo = testsupport::makeScratchDir("fifo") + "/plugin_config";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0666));
    EXPECT_EQ("", ConfigInfo::sGetInstance()->getConfigFromFile(fifo, "key"));
    EXPECT_EQ("", ConfigUtils(fifo).getConfigFromKey("key"));
}
