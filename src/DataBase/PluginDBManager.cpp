#include "DataBase/PluginDBManager.h"

#include <glog/logging.h>

#include "storage/File.h"
#include "system/ConfigInfo.h"

using datacenter::PluginInfo;
using datacenter::PluginStatus;

const std::string PluginDBManager::sTableName = "pluginTable";
const std::string PluginDBManager::sDatabaseFileName_ = "pluginDatabase.db";
const std::string PluginDBManager::sDbVersion = "1";
const std::string PluginDBManager::sUrlConfigKey = "PluginDBAddControlUrlColumnKey";

namespace {

// Column positions of the table, in the order of the create statement.
enum Column {
    COL_ID = 0,
    COL_NAME,
    COL_SMALLICON,
    COL_LARGEICON,
    COL_DEVELOPER,
    COL_VERSION,
    COL_INTRODUCTION,
    COL_STATUS,
    COL_CAPABILITY,
    COL_DEVID,
    COL_TITLE,
    COL_ROOTPATH,
    COL_TYPE,
    COL_LIMITSIZE,
    COL_CONTROLURL,
};

const int kSchemaVersion = 1;

std::string columnText(sqlite3_stmt* statement, int column) {
    const unsigned char* text = sqlite3_column_text(statement, column);
    return text ? reinterpret_cast<const char*>(text) : std::string();
}

std::string createStatement() {
    return "Create TABLE " + PluginDBManager::sTableName +
           "(ID  VARCHAR(32) PRIMARY KEY,NAME VARCHAR(256) ,SMALLICON VARCHAR(1024), LARGEICON "
           "VARCHAR(1024),DEVELOPER  VARCHAR(1024),VERSION VARCHAR(256),INTRODUCTION VARCHAR(1024),STATUS "
           "INTEGER,CAPABILITY INTEGER,DEVID VARCHAR(256),TITLE VARCHAR(256),ROOTPATH VARCHAR(256),TYPE "
           "INTEGER,LIMITSIZE BIGINT,CONTROLURL VARCHAR(1024));";
}

std::string insertStatement() {
    std::string marks;
    for (int i = 0; i < 15; ++i) {
        marks += i == 0 ? "?" : ",?";
    }
    return "INSERT INTO " + PluginDBManager::sTableName +
           "(ID, NAME, SMALLICON,LARGEICON,DEVELOPER,VERSION,INTRODUCTION,STATUS,CAPABILITY,DEVID,TITLE,ROOTPATH,"
           "TYPE,LIMITSIZE,CONTROLURL) VALUES(" +
           marks + ")";
}

std::string updateStatement() {
    return "UPDATE " + PluginDBManager::sTableName +
           " SET NAME =?, SMALLICON = ?, LARGEICON =?, DEVELOPER = ?,VERSION =?,INTRODUCTION = ?,STATUS =? "
           ",CAPABILITY =? ,DEVID =? ,TITLE =? ,ROOTPATH =? ,TYPE =? ,LIMITSIZE =? ,CONTROLURL=?  where ID=?";
}

// Finalises the statement whichever way the operation leaves.
class StatementGuard {
public:
    explicit StatementGuard(sqlite3_stmt* statement) : statement_(statement) {}
    ~StatementGuard() { sqlite3_finalize(statement_); }
    StatementGuard(const StatementGuard&) = delete;
    StatementGuard& operator=(const StatementGuard&) = delete;

private:
    sqlite3_stmt* statement_;
};

}  // namespace

PluginDBManager::PluginDBManager() {
    dbRootPath = datacenter::ConfigInfo::sGetInstance()->getDatabaseRootPath();
    dbFilePath = dbRootPath + "/" + sDatabaseFileName_;
    initDatabase();
}

PluginDBManager::~PluginDBManager() {
    closeHandle();
}

void PluginDBManager::closeHandle() {
    if (db_) {
        sqlite3_close(db_);
        db_ = nullptr;
    }
}

sqlite3_stmt* PluginDBManager::prepare(const std::string& sql) {
    if (!db_) {
        return nullptr;
    }
    sqlite3_stmt* statement = nullptr;
    if (!isSqlSucceed(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr))) {
        sqlite3_finalize(statement);
        return nullptr;
    }
    return statement;
}

bool PluginDBManager::exec(const std::string& sql, std::string& error) {
    char* message = nullptr;
    const int code = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message);
    error = message ? message : (code == SQLITE_OK ? "" : sqlite3_errstr(code));
    sqlite3_free(message);
    return code == SQLITE_OK;
}

void PluginDBManager::initDatabase() {
    if (db_) {
        LOG(INFO) << "initDatabase PluginDBManager completed";
        return;
    }
    if (sqlite3_open(dbFilePath.c_str(), &db_) != SQLITE_OK) {
        LOG(INFO) << dbFilePath << " database Open failed:" << (db_ ? sqlite3_errmsg(db_) : "out of memory");
        closeHandle();
        LOG(INFO) << "initDatabase PluginDBManager completed";
        return;
    }
    const std::string exists = " SELECT * FROM sqlite_master WHERE type='table' AND name='" + sTableName + "';";
    char** table = nullptr;
    int rows = 0;
    int columns = 0;
    char* message = nullptr;
    sqlite3_get_table(db_, exists.c_str(), &table, &rows, &columns, &message);
    sqlite3_free(message);
    if (rows == 0) {
        LOG(INFO) << "DB:" << dbFilePath << " has been opend!";
        std::string error;
        if (exec(createStatement(), error)) {
            LOG(INFO) << "PluginDBManager database create succeed!";
            setDBVersion();
        } else {
            LOG(INFO) << "DB:" << dbFilePath << " " << error;
        }
    } else {
        LOG(INFO) << "PluginDBManager db exist!";
        upgradeDB();
    }
    sqlite3_free_table(table);
    LOG(INFO) << "initDatabase PluginDBManager completed";
}

void PluginDBManager::upgradeDB() {
    LOG(INFO) << "initDatabase upgradeDB begin";
    bool hasVersion = false;
    int version = 0;
    sqlite3_stmt* statement = prepare("PRAGMA user_version");
    StatementGuard guard(statement);
    if (statement) {
        while (sqlite3_step(statement) == SQLITE_ROW) {
            if (sqlite3_data_count(statement) > 0) {
                version = sqlite3_column_int(statement, 0);
                hasVersion = true;
                break;
            }
        }
    }
    LOG(INFO) << "upgradeDB  version is" << version;
    if (hasVersion && version >= kSchemaVersion) {
        return;
    }
    LOG(INFO) << "upgradeDB sUrlConfigKey is empty.";
    std::string error = "database is not open";
    if (db_ && exec("ALTER TABLE " + sTableName + " ADD COLUMN CONTROLURL VARCHAR(1024);", error)) {
        LOG(INFO) << "upgradeDB add CONTROLURL succeed!";
        setDBVersion();
    } else {
        LOG(INFO) << "upgradeDB DB:" << dbFilePath << " " << error;
    }
}

bool PluginDBManager::setDBVersion() {
    std::string error = "database is not open";
    if (db_ && exec("PRAGMA user_version = " + sDbVersion, error)) {
        LOG(INFO) << "PluginDBManager setDBVersion create succeed!";
        return true;
    }
    LOG(INFO) << " setDBVersion DB:" << dbFilePath << " " << error;
    return false;
}

bool PluginDBManager::isSqlSucceed(int code) {
    if (code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE) {
        return true;
    }
    LOG(INFO) << "sql error:" << (db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(code));
    return false;
}

int PluginDBManager::bindstring(sqlite3_stmt* statement, int index, const std::string& value) {
    return sqlite3_bind_text(statement, index, value.c_str(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
}

void PluginDBManager::fillPluginInfo(PluginInfo& info, sqlite3_stmt* statement) {
    info.id = columnText(statement, COL_ID);
    info.name = columnText(statement, COL_NAME);
    info.smallIcon = columnText(statement, COL_SMALLICON);
    info.largeIcon = columnText(statement, COL_LARGEICON);
    info.developer = columnText(statement, COL_DEVELOPER);
    info.version = columnText(statement, COL_VERSION);
    info.introduction = columnText(statement, COL_INTRODUCTION);
    info.status = static_cast<PluginStatus>(sqlite3_column_int(statement, COL_STATUS));
    info.capability = sqlite3_column_int(statement, COL_CAPABILITY);
    info.devId = columnText(statement, COL_DEVID);
    info.title = columnText(statement, COL_TITLE);
    info.rootPath = columnText(statement, COL_ROOTPATH);
    info.type = sqlite3_column_int(statement, COL_TYPE);
    info.limitSize = sqlite3_column_int64(statement, COL_LIMITSIZE);
    info.controlUrl = columnText(statement, COL_CONTROLURL);
}

std::vector<PluginInfo> PluginDBManager::getPluginInfos() {
    std::vector<PluginInfo> infos;
    sqlite3_stmt* statement = prepare("select * from " + sTableName);
    StatementGuard guard(statement);
    if (!statement) {
        return infos;
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
        if (sqlite3_data_count(statement) > 0) {
            PluginInfo info;
            fillPluginInfo(info, statement);
            infos.push_back(info);
        }
    }
    return infos;
}

PluginInfo PluginDBManager::getPluginInfoById(const std::string& id) {
    PluginInfo info;
    if (id.empty()) {
        LOG(INFO) << "Plugin database get plugin by id failed, id is empty!";
        return info;
    }
    sqlite3_stmt* statement = prepare("select * from " + sTableName + " where ID=?");
    StatementGuard guard(statement);
    if (!statement) {
        return info;
    }
    bindstring(statement, 1, id);
    if (sqlite3_step(statement) == SQLITE_ROW && sqlite3_data_count(statement) > 0) {
        fillPluginInfo(info, statement);
    }
    return info;
}

bool PluginDBManager::insertToDB(const PluginInfo& info) {
    LOG(INFO) << "insertToDB";
    if (info.id.empty()) {
        LOG(INFO) << "PluginDB insertToDB failed: ID is empty!";
        return false;
    }
    sqlite3_stmt* statement = prepare(insertStatement());
    StatementGuard guard(statement);
    if (!statement) {
        return false;
    }
    bindstring(statement, 1 + COL_ID, info.id);
    bindstring(statement, 1 + COL_NAME, info.name);
    bindstring(statement, 1 + COL_SMALLICON, info.smallIcon);
    bindstring(statement, 1 + COL_LARGEICON, info.largeIcon);
    bindstring(statement, 1 + COL_DEVELOPER, info.developer);
    bindstring(statement, 1 + COL_VERSION, info.version);
    bindstring(statement, 1 + COL_INTRODUCTION, info.introduction);
    sqlite3_bind_int(statement, 1 + COL_STATUS, info.status);
    sqlite3_bind_int(statement, 1 + COL_CAPABILITY, info.capability);
    bindstring(statement, 1 + COL_DEVID, info.devId);
    bindstring(statement, 1 + COL_TITLE, info.title);
    bindstring(statement, 1 + COL_ROOTPATH, info.rootPath);
    sqlite3_bind_int(statement, 1 + COL_TYPE, info.type);
    sqlite3_bind_int64(statement, 1 + COL_LIMITSIZE, info.limitSize);
    bindstring(statement, 1 + COL_CONTROLURL, info.controlUrl);
    const int code = sqlite3_step(statement);
    const bool succeeded = isSqlSucceed(code);
    // The id is the table's only constraint, so a constraint failure means a duplicate id.
    if (code == SQLITE_CONSTRAINT) {
        LOG(INFO) << "PluginDB insertToDB failed: ID already exist!";
    }
    return succeeded;
}

bool PluginDBManager::updateToDB(const PluginInfo& info) {
    sqlite3_stmt* statement = prepare(updateStatement());
    StatementGuard guard(statement);
    if (!statement) {
        return false;
    }
    // Parameters 1..14 follow the columns from NAME on; the id comes last.
    bindstring(statement, COL_NAME, info.name);
    bindstring(statement, COL_SMALLICON, info.smallIcon);
    bindstring(statement, COL_LARGEICON, info.largeIcon);
    bindstring(statement, COL_DEVELOPER, info.developer);
    bindstring(statement, COL_VERSION, info.version);
    bindstring(statement, COL_INTRODUCTION, info.introduction);
    sqlite3_bind_int(statement, COL_STATUS, info.status);
    sqlite3_bind_int(statement, COL_CAPABILITY, info.capability);
    bindstring(statement, COL_DEVID, info.devId);
    bindstring(statement, COL_TITLE, info.title);
    bindstring(statement, COL_ROOTPATH, info.rootPath);
    sqlite3_bind_int(statement, COL_TYPE, info.type);
    sqlite3_bind_int64(statement, COL_LIMITSIZE, info.limitSize);
    bindstring(statement, COL_CONTROLURL, info.controlUrl);
    bindstring(statement, 15, info.id);
    return isSqlSucceed(sqlite3_step(statement));
}

bool PluginDBManager::updateStatusToDB(const std::string& id, PluginStatus status) {
    if (id.empty()) {
        LOG(INFO) << "PluginDBManager updateStatusToDB ID is empty!";
        return false;
    }
    sqlite3_stmt* statement = prepare("UPDATE " + sTableName + " SET STATUS =? where ID=?");
    StatementGuard guard(statement);
    if (!statement) {
        return false;
    }
    sqlite3_bind_int(statement, 1, status);
    bindstring(statement, 2, id);
    return isSqlSucceed(sqlite3_step(statement));
}

bool PluginDBManager::deleteInDB(const std::string& id) {
    if (id.empty()) {
        LOG(INFO) << "PluginDB deleteInDB failed: ID is empty!";
        return false;
    }
    sqlite3_stmt* statement = prepare("DELETE FROM " + sTableName + " where ID=?");
    StatementGuard guard(statement);
    if (!statement) {
        return false;
    }
    bindstring(statement, 1, id);
    return isSqlSucceed(sqlite3_step(statement));
}

void PluginDBManager::resetDB() {
    boost::mutex::scoped_lock lock(mutex_);
    closeHandle();
    datacenter::File::sDelete(dbFilePath);
    initDatabase();
    LOG(INFO) << "PluginDBManager resetDB Completed!";
}

void PluginDBManager::deleteDBFile() {
    closeHandle();
    datacenter::File::sDelete(dbFilePath);
}
