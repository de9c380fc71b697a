#pragma once
// Plugin records kept in one SQLite table. The schema carries its own version
// in SQLite's user_version, so a database written by an older core (without
// the CONTROLURL column) is brought up to date when it is opened. Operations
// report failures as false or empty results; nothing here throws.
#include <sqlite3.h>

#include <boost/thread/mutex.hpp>
#include <string>
#include <vector>

#include "common/PluginInfo.h"

class PluginDBManager {
public:
    static const std::string sTableName;
    static const std::string sDatabaseFileName_;
    // The schema version as text, written to user_version.
    static const std::string sDbVersion;
    static const std::string sUrlConfigKey;

    // Computes the paths (the database directory is created when missing) and opens the database.
    PluginDBManager();
    virtual ~PluginDBManager();
    PluginDBManager(const PluginDBManager&) = delete;
    PluginDBManager& operator=(const PluginDBManager&) = delete;

    // Opens the file and creates the table, or upgrades an existing one. A
    // failed open leaves the handle null; every operation then fails until resetDB.
    void initDatabase();
    // Adds the CONTROLURL column when the schema version is below 1 (or unreadable).
    void upgradeDB();
    // Writes the current schema version. False when the statement fails.
    bool setDBVersion();

    // Every record in the table's row order; empty without a database.
    std::vector<datacenter::PluginInfo> getPluginInfos();
    // The record stored under `id`; a record with an empty id when there is none.
    datacenter::PluginInfo getPluginInfoById(const std::string& id);
    // Adds a record. False for an empty id, an id already present, or any SQLite failure.
    bool insertToDB(const datacenter::PluginInfo& info);
    // Rewrites every column of the record stored under `info.id`. An unknown
    // id changes nothing and still succeeds; false only on SQLite failures.
    bool updateToDB(const datacenter::PluginInfo& info);
    // Sets the status of `id`. False for an empty id or on SQLite failures.
    bool updateStatusToDB(const std::string& id, datacenter::PluginStatus status);
    // Removes the record of `id`. False for an empty id or on SQLite failures.
    bool deleteInDB(const std::string& id);
    // Closes, deletes the file and opens a fresh empty database.
    void resetDB();
    // Closes and deletes the database file; the component stays closed.
    void deleteDBFile();

    // Copies the columns of the row `statement` is positioned on into `info`.
    void fillPluginInfo(datacenter::PluginInfo& info, sqlite3_stmt* statement);
    // Binds `value` as text to parameter `index` (1-based). Returns the SQLite code.
    int bindstring(sqlite3_stmt* statement, int index, const std::string& value);
    // True for SQLITE_OK, SQLITE_ROW and SQLITE_DONE; logs the handle's error otherwise.
    bool isSqlSucceed(int code);

    const std::string& getDbFilePath() const { return dbFilePath; }

private:
    void closeHandle();
    sqlite3_stmt* prepare(const std::string& sql);
    bool exec(const std::string& sql, std::string& error);

    std::string dbFilePath;
    std::string dbRootPath;
    sqlite3* db_ = nullptr;
    boost::mutex mutex_;
};
