#include <glog/logging.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "DataBase/PluginDBManager.h"
#include "storage/File.h"
#include "support/Golden.h"
#include "support/TestSupport.h"

using datacenter::PluginInfo;

namespace {

std::string databaseFile() {
    return testsupport::underRoot("/userdisk/data/.systemconfig/DataBase/pluginDatabase.db");
}

// Runs `sql` through a connection of its own; returns the first column of the
// last row it gave, -1 when it gave none.
int runSql(const std::string& sql) {
    sqlite3* db = nullptr;
    sqlite3_open(databaseFile().c_str(), &db);
    int value = -1;
    char* error = nullptr;
    const auto keepFirst = [](void* out, int, char** columns, char**) {
        *static_cast<int*>(out) = columns[0] ? std::stoi(columns[0]) : -1;
        return 0;
    };
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), keepFirst, &value, &error)) << (error ? error : "");
    sqlite3_free(error);
    sqlite3_close(db);
    return value;
}

int columnCount() {
    return runSql("SELECT count(*) FROM pragma_table_info('pluginTable')");
}

PluginInfo sampleRecord(const std::string& id) {
    PluginInfo info;
    info.id = id;
    info.name = "Name " + id;
    info.smallIcon = "s.png";
    info.largeIcon = "l.png";
    info.developer = "dev";
    info.version = "1.2.3";
    info.introduction = "intro";
    info.status = datacenter::ENABLED;
    info.capability = 7;
    info.devId = "dev-1";
    info.title = "Title";
    info.rootPath = "/userdisk/appdata/" + id;
    info.type = 2;
    info.limitSize = 5000000000LL;  // beyond 32 bits
    info.controlUrl = "http://127.0.0.1:8080/";
    return info;
}

// The fields a database row holds, for comparing two records whole.
std::vector<std::string> stored(const PluginInfo& i) {
    std::vector<std::string> row = {i.id,           i.name,  i.smallIcon, i.largeIcon, i.developer, i.version,
                                    i.introduction, i.devId, i.title,     i.rootPath,  i.controlUrl};
    for (const long long number : {static_cast<long long>(i.status), static_cast<long long>(i.capability),
                                   static_cast<long long>(i.type), static_cast<long long>(i.limitSize)}) {
        row.push_back(std::to_string(number));
    }
    return row;
}

std::vector<std::string> names(const std::vector<PluginInfo>& infos) {
    std::vector<std::string> result;
    for (const PluginInfo& info : infos) {
        result.push_back(info.name);
    }
    return result;
}

}  // namespace

TEST(PluginDBManagerTest, FreshDatabaseHasTheCurrentSchemaAndRoundTripsRecords) {
    PluginDBManager db;
    EXPECT_EQ(1, runSql("PRAGMA user_version"));
    EXPECT_EQ(15, columnCount());

    const PluginInfo first = sampleRecord("2882303761517000001");
    const PluginInfo second = sampleRecord("a");
    ASSERT_TRUE(db.insertToDB(first));
    ASSERT_TRUE(db.insertToDB(second));
    EXPECT_EQ(stored(first), stored(db.getPluginInfoById(first.id)));

    EXPECT_EQ((std::vector<std::string>{first.name, second.name}), names(db.getPluginInfos()));

    EXPECT_TRUE(db.getPluginInfoById("unknown").id.empty());
    EXPECT_TRUE(db.getPluginInfoById("").id.empty());
}

TEST(PluginDBManagerTest, UpdatesChangeOnlyTheAddressedRecord) {
    PluginDBManager db;
    ASSERT_TRUE(db.insertToDB(sampleRecord("a")));
    ASSERT_TRUE(db.insertToDB(sampleRecord("b")));

    PluginInfo changed = sampleRecord("a");
    changed.name = "renamed";
    changed.status = datacenter::DISABLED;
    changed.limitSize = -1;
    changed.controlUrl = "";
    ASSERT_TRUE(db.updateToDB(changed));
    EXPECT_EQ(stored(changed), stored(db.getPluginInfoById("a")));
    EXPECT_EQ(stored(sampleRecord("b")), stored(db.getPluginInfoById("b")));

    ASSERT_TRUE(db.updateStatusToDB("b", datacenter::INSTALLING));
    EXPECT_EQ(datacenter::INSTALLING, db.getPluginInfoById("b").status);
    EXPECT_EQ(datacenter::DISABLED, db.getPluginInfoById("a").status);

    // An unknown id changes nothing and is not an error.
    EXPECT_TRUE(db.updateToDB(sampleRecord("unknown")));
    EXPECT_EQ(2u, db.getPluginInfos().size());

    ASSERT_TRUE(db.deleteInDB("a"));
    EXPECT_TRUE(db.getPluginInfoById("a").id.empty());
    EXPECT_EQ("b", db.getPluginInfoById("b").id);
}

TEST(PluginDBManagerTest, EmptyIdsAndDuplicatesAreRefusedWithTheirMessages) {
    PluginDBManager db;
    ASSERT_TRUE(db.insertToDB(sampleRecord("dup")));
    PluginInfo again = sampleRecord("dup");
    again.name = "second";
    testsupport::LogCapture log;
    EXPECT_FALSE(db.insertToDB(PluginInfo()));
    EXPECT_FALSE(db.updateStatusToDB("", datacenter::ENABLED));
    EXPECT_FALSE(db.deleteInDB(""));
    EXPECT_FALSE(db.insertToDB(again));
    EXPECT_GOLDEN("database/refusals", testsupport::logText(log));
    EXPECT_EQ((std::vector<std::string>{"Name dup"}), names(db.getPluginInfos()));
}

TEST(PluginDBManagerTest, OldSchemaIsUpgradedOnceAndKeepsItsRows) {
    {
        // A database as an older core left it: no CONTROLURL, user_version 0.
        PluginDBManager creator;
        creator.deleteDBFile();
    }
    runSql(
        "Create TABLE pluginTable(ID  VARCHAR(32) PRIMARY KEY,NAME VARCHAR(256) ,SMALLICON VARCHAR(1024), LARGEICON "
        "VARCHAR(1024),DEVELOPER  VARCHAR(1024),VERSION VARCHAR(256),INTRODUCTION VARCHAR(1024),STATUS "
        "INTEGER,CAPABILITY INTEGER,DEVID VARCHAR(256),TITLE VARCHAR(256),ROOTPATH VARCHAR(256),TYPE "
        "INTEGER,LIMITSIZE BIGINT);"
        "INSERT INTO pluginTable VALUES('old','Old','s','l','d','0.9','i',6,3,'dv','t','/r',1,42);");
    ASSERT_EQ(0, runSql("PRAGMA user_version"));
    ASSERT_EQ(14, columnCount());

    testsupport::LogCapture log;
    {
        PluginDBManager db;
        EXPECT_TRUE(log.contains("upgradeDB add CONTROLURL succeed!"));
        EXPECT_EQ(1, runSql("PRAGMA user_version"));
        EXPECT_EQ(15, columnCount());
        const PluginInfo old = db.getPluginInfoById("old");
        EXPECT_EQ("Old", old.name);
        EXPECT_EQ(datacenter::DISABLED, old.status);
        EXPECT_EQ(42, old.limitSize);
        EXPECT_EQ("", old.controlUrl);
        PluginInfo updated = old;
        updated.controlUrl = "http://127.0.0.1:1/";
        EXPECT_TRUE(db.updateToDB(updated));
    }
    testsupport::LogCapture secondOpen;
    PluginDBManager reopened;
    EXPECT_TRUE(secondOpen.contains("PluginDBManager db exist!"));
    EXPECT_FALSE(secondOpen.contains("upgradeDB sUrlConfigKey is empty."));
    EXPECT_EQ(15, columnCount());
    EXPECT_EQ("http://127.0.0.1:1/", reopened.getPluginInfoById("old").controlUrl);
}

TEST(PluginDBManagerTest, ResetEmptiesTheTableAndADeletedFileFailsEveryOperationUntilTheNextReset) {
    PluginDBManager db;
    ASSERT_TRUE(db.insertToDB(sampleRecord("a")));
    ASSERT_TRUE(db.insertToDB(sampleRecord("b")));
    db.resetDB();
    EXPECT_TRUE(db.getPluginInfos().empty());
    EXPECT_EQ(1, runSql("PRAGMA user_version"));
    ASSERT_TRUE(db.insertToDB(sampleRecord("a")));

    db.deleteDBFile();
    EXPECT_FALSE(datacenter::File::sExists(databaseFile()));
    EXPECT_FALSE(db.insertToDB(sampleRecord("b")));
    EXPECT_FALSE(db.updateToDB(sampleRecord("a")));
    EXPECT_FALSE(db.updateStatusToDB("a", datacenter::ENABLED));
    EXPECT_FALSE(db.deleteInDB("a"));
    EXPECT_FALSE(db.setDBVersion());
    EXPECT_TRUE(db.getPluginInfos().empty());
    EXPECT_TRUE(db.getPluginInfoById("a").id.empty());

    db.resetDB();
    EXPECT_TRUE(db.insertToDB(sampleRecord("b")));
    EXPECT_EQ((std::vector<std::string>{"Name b"}), names(db.getPluginInfos()));
}
