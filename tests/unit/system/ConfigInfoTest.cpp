// The configuration files: the global one, per-plugin ones, repair of a
// damaged file, and writers on several threads. Writers in several processes
// are PluginProcessTest's (through the plugin's configuration data).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/thread/thread.hpp>
#include <cstdio>
#include <ctime>

#include "support/TestSupport.h"
#include "system/ConfigInfo.h"
#include "system/ConfigUtils.h"
#include "system/RootPrefix.h"

using datacenter::ConfigInfo;
using testsupport::readFile;
using testsupport::writeFile;

namespace {

std::string globalFile() {
    return testsupport::underRoot("/userdisk/datacenterConfig/config.cfg");
}

}  // namespace

TEST(ConfigGlobal, RoundTripsKeysAndAnEmptyValueDeletesTheKey) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    EXPECT_EQ("", config->getConfig("a"));
    config->setConfig("a", "1");
    config->setConfig("port_of_42", "8080");
    config->setConfig("port_of_42", "8081");
    EXPECT_EQ("1", config->getConfig("a"));
    EXPECT_EQ("8081", config->getConfig("port_of_42"));
    EXPECT_EQ("8081", ConfigInfo::sGetConfigFromFile(globalFile(), "port_of_42"));

    config->setConfig("a", "");
    EXPECT_EQ("", config->getConfig("a"));
    EXPECT_EQ(std::string::npos, readFile(globalFile()).find("a ="));

    // Another process's write is seen on the next read.
    writeFile(globalFile(), "port_of_42 = \"9\";\nb = \"2\";\n");
    EXPECT_EQ("9", config->getConfig("port_of_42"));
    EXPECT_EQ("2", config->getConfig("b"));
    // A key that is not a valid setting name is refused without touching the file.
    config->setConfig("9bad key", "x");
    EXPECT_EQ("2", config->getConfig("b"));
}

TEST(ConfigGlobal, ASettledFileIsParsedOnceAndEveryOtherWriteIsSeen) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    const struct timespec past[2] = {{time(nullptr) - 600, 0}, {time(nullptr) - 600, 0}};
    const auto writeSettled = [&](const std::string& text) {
        writeFile(globalFile(), text);
        ASSERT_EQ(0, utimensat(AT_FDCWD, globalFile().c_str(), past, 0));
    };
    writeSettled("port_of_7 = \"1111\";\n");
    EXPECT_EQ("1111", config->getConfig("port_of_7"));
    const uint64_t reads = config->globalReadCount();
    EXPECT_EQ("1111", config->getConfig("port_of_7"));
    EXPECT_EQ(reads, config->globalReadCount());

    // Another writer's version of the same size, in place or renamed into place.
    writeFile(globalFile(), "port_of_7 = \"2222\";\n");
    EXPECT_EQ("2222", config->getConfig("port_of_7"));
    writeSettled("port_of_7 = \"2222\";\n");
    config->getConfig("port_of_7");
    const std::string other = globalFile() + ".new";
    writeFile(other, "port_of_7 = \"3333\";\n");
    ASSERT_EQ(0, rename(other.c_str(), globalFile().c_str()));
    EXPECT_EQ("3333", config->getConfig("port_of_7"));

    // A file written just now is read again on every call.
    writeFile(globalFile(), "port_of_7 = \"4444\";\n");
    EXPECT_EQ("4444", config->getConfig("port_of_7"));
    const uint64_t fresh = config->globalReadCount();
    config->getConfig("port_of_7");
    EXPECT_EQ(fresh + 1, config->globalReadCount());
}

TEST(ConfigFiles, SetToFileCreatesMergesAndDeletes) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    const std::string path = testsupport::makeScratchDir("cfg") + "/plugin_config";
    config->setConfigToFile(path, "keyx", "1");
    EXPECT_EQ("keyx = \"1\";\n", readFile(path));
    config->setConfigToFile(path, "keyy", "two words");
    EXPECT_EQ("1", config->getConfigFromFile(path, "keyx"));
    EXPECT_EQ("two words", config->getConfigFromFile(path, "keyy"));
    config->setConfigToFile(path, "keyx", "");
    EXPECT_EQ("", config->getConfigFromFile(path, "keyx"));
    EXPECT_EQ("two words", config->getConfigFromFile(path, "keyy"));

    // A file that does not parse is never overwritten.
    writeFile(path, "broken = ");
    config->setConfigToFile(path, "keyz", "3");
    EXPECT_EQ("broken = ", readFile(path));
    EXPECT_EQ("", config->getConfigFromFile(path, "keyz"));
    EXPECT_EQ("", ConfigInfo::sGetConfigFromFile(path + ".missing", "keyz"));
}

TEST(ConfigFiles, ListsOnlyStringArraysAndParsesDocumentsFromText) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    const std::string path = testsupport::makeScratchDir("lists") + "/manifest";
    writeFile(path, "arr = [\"x\", \"y\"];\nlst = (\"x\", \"y\");\nempty = [];\ns = \"v\";\n");
    EXPECT_EQ((std::vector<std::string>{"x", "y"}), config->getListFromFile(path, "arr"));
    EXPECT_TRUE(config->getListFromFile(path, "lst").empty());
    EXPECT_TRUE(config->getListFromFile(path, "empty").empty());
    EXPECT_TRUE(config->getListFromFile(path, "s").empty());
    EXPECT_TRUE(config->getListFromFile(path, "missing").empty());
    EXPECT_TRUE(config->getListFromFile(path + ".none", "arr").empty());

    EXPECT_EQ("5017", config->getConfigFromString("plugin_id = \"5017\";", "plugin_id"));
    EXPECT_EQ("", config->getConfigFromString("plugin_id = 5017;", "plugin_id"));
    EXPECT_EQ("", config->getConfigFromString("not a document", "plugin_id"));
}

TEST(ConfigRepair, CutLastLineIsRepairedAtStartUp) {
    writeFile(globalFile(), "first = \"1\";\nsecond = \"2\";\nthird =\n");
    ConfigInfo* config = ConfigInfo::sGetInstance();
    EXPECT_EQ("first = \"1\";\nsecond = \"2\";\n\n", readFile(globalFile()));
    EXPECT_EQ("2", config->getConfig("second"));
    config->setConfig("third", "3");
    EXPECT_EQ("3", ConfigInfo::sGetConfigFromFile(globalFile(), "third"));
}

TEST(ConfigRepair, AFileWithEveryLineDamagedEndsUpEmpty) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    const std::string path = testsupport::makeScratchDir("damaged") + "/x.cfg";
    writeFile(path, "a = ;\nb = = ;\nc\n");
    config->fixDamagedFile(path);
    EXPECT_EQ("\n", readFile(path));
    config->fixDamagedFile(path + ".missing");
    EXPECT_FALSE(testsupport::exists(path + ".missing"));
}

TEST(ConfigStartUp, CreatesTheConfigurationRootAndClearsStaleCaches) {
    writeFile(testsupport::underRoot("/userdisk/datacenterConfig/DataBase/old.db"), "x");
    writeFile(testsupport::underRoot("/userdisk/.thumbnails/t.png"), "x");
    writeFile(testsupport::underRoot("/userdisk/data/keep"), "x");
    ConfigInfo::sGetInstance();
    EXPECT_FALSE(testsupport::exists(testsupport::underRoot("/userdisk/datacenterConfig/DataBase")));
    EXPECT_FALSE(testsupport::exists(testsupport::underRoot("/userdisk/.thumbnails")));
    EXPECT_EQ("x", readFile(testsupport::underRoot("/userdisk/data/keep")));
}

TEST(ConfigConcurrency, WritersInOneProcessLoseNoKey) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    const std::string path = testsupport::makeScratchDir("threads") + "/shared.cfg";
    boost::thread_group writers;
    for (int t = 0; t < 4; ++t) {
        writers.create_thread([config, path, t] {
            for (int i = 0; i < 40; ++i) {
                config->setConfigToFile(path, "t" + std::to_string(t) + "_" + std::to_string(i), "v");
            }
        });
    }
    writers.join_all();
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < 40; ++i) {
            EXPECT_EQ("v", ConfigInfo::sGetConfigFromFile(path, "t" + std::to_string(t) + "_" + std::to_string(i)));
        }
    }
}

TEST(ConfigUtilsReader, ReadsOneKeyAfreshEachTime) {
    const std::string path = testsupport::makeScratchDir("utils") + "/commonutils.config.tmp";
    ConfigUtils reader(path);
    EXPECT_EQ("", reader.getConfigFromKey("code"));
    writeFile(path, "code = \"DE\";\n");
    EXPECT_EQ("DE", reader.getConfigFromKey("code"));
    writeFile(path, "code = \"FR\";\n");
    EXPECT_EQ("FR", reader.getConfigFromKey("code"));
    writeFile(path, "code = ");
    EXPECT_EQ("", reader.getConfigFromKey("code"));
}

TEST(RootPrefixPaths, PrefixesFixedPathsOnly) {
    using datacenter::RootPrefix;
    EXPECT_EQ(testsupport::root(), RootPrefix::sRoot());
    EXPECT_EQ(testsupport::root() + "/userdisk//x", RootPrefix::sPath("/userdisk//x"));
    EXPECT_EQ("/proc/mounts", RootPrefix::sPath("/proc/mounts"));
    EXPECT_EQ("/dev/sda1", RootPrefix::sPath("/dev/sda1"));
    EXPECT_EQ(testsupport::root() + "/devices", RootPrefix::sPath("/devices"));
    EXPECT_EQ("", RootPrefix::sPath(""));
    EXPECT_EQ("relative/file", RootPrefix::sPath("relative/file"));
    EXPECT_TRUE(RootPrefix::sIsRootItself(testsupport::root() + "//"));
    EXPECT_FALSE(RootPrefix::sIsRootItself(testsupport::root() + "/userdisk"));
}
