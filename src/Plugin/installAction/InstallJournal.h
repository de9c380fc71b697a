#pragma once
// One installer at a time across processes, and a record of what it is doing.
//
// Both the lock and the record live in the core's private folder
// "/data/etc/datacenter/state/" (PrivateState: 0700, never on the user disk
// that plugins can reach). The installer holds an exclusive flock on the lock file for the
// whole installation; the kernel drops it when the holder dies, so a killed
// installer never blocks the next one. Before the installer writes anything it
// records, durably, which plugin it works on and two flags: whether that
// plugin was installed before and whether its data directory existed. Every
// path recovery touches is derived from that id. A process that starts the
// core and can take the lock finds such a record only when an installer died
// part-way, and finishes its job: staged payloads go, the tree of an
// interrupted fresh install goes. An upgrade records that it keeps a backup
// of the installed version (UpgradeBackup, its folder derived from the id)
// and, once the new version is enabled, that it passed its commit point: an
// upgrade that died before that point is rolled back to the old version, one
// that died after it is finished. A plugin the store lists as installed keeps
// its tree and record unless the record names its own upgrade.
#include <string>

class InstallJournal {
public:
    // What an installer recorded before it started writing.
    struct Entry {
        std::string id;           // empty until the package named it
        bool upgrade = false;     // the plugin was recorded in the store before
        bool freshTree = false;   // its data directory did not exist before
        bool backup = false;      // an upgrade that keeps the old version aside
        bool wasEnabled = false;  // the old version ran before the upgrade
        bool committed = false;   // the new version is enabled: it stays
        bool uninstall = false;   // an uninstallation of a stopped plugin, to be finished
    };

    InstallJournal() = default;
    // Uninstallations keep a lock and record of their own ("uninstall.lock",
    // "uninstall.journal"): they run beside installations, as the contract
    // allows, but one at a time, and the next start finishes one that died.
    struct ForUninstall {};
    explicit InstallJournal(ForUninstall) : uninstall_(true) {}
    // Releases the lock if it is held.
    ~InstallJournal();
    InstallJournal(const InstallJournal&) = delete;
    InstallJournal& operator=(const InstallJournal&) = delete;

    // The core's private folder (PrivateState::sDir()), and the lock file
    // and the record in it.
    static std::string sPrivateDir();
    static std::string sLockPath();
    static std::string sJournalPath();
    // PrivateState::sEnsure(): false (logged) when the private folder cannot be used.
    static bool sEnsurePrivateDir();

    // Takes the installation lock without waiting: true when this object holds
    // it now, false when another installer (in any process) does, the lock
    // file cannot be opened or the private folder cannot be used.
    bool tryLock();
    // Takes the lock, waiting at most `milliseconds` for another holder.
    bool lockWithin(long milliseconds);
    bool locked() const { return fd_ >= 0; }
    // Drops the lock (the record stays).
    void unlock();

    // Replaces the record with `entry`, flushed to disk together with its
    // directory entry. False when it could not be written; the caller must not
    // go on writing then, as a crash would leave debris nobody knows about.
    bool record(const Entry& entry);
    // Removes the record once the installation has finished or cleaned up.
    void clear();

    // The record of this journal (install or uninstall).
    std::string journalPath() const;
    // The id of an uninstallation that died after it stopped the plugin (its
    // record is left), or "" (the uninstall lock is free and no record is left).
    static std::string sUnfinishedUninstall();

    // Reads the record left at `path`; false when there is none or it is unreadable.
    static bool sRead(const std::string& path, Entry& entry);

    // Removes the file or tree at `path`, which must lie strictly below the
    // plugin root, without following links and without entering mounts.
    static void sRemoveBelowRoot(const std::string& path);

    // Called when the core starts: when no installer runs and one left a
    // record, undoes what it left half done (see the class comment) and
    // removes the record. True when a record was recovered. `restart` gets the
    // id of a plugin that ran before an upgrade rolled back here, for the
    // caller to start once it can.
    static bool sRecover(std::string* restart = nullptr);

private:
    std::string lockPath() const;
    int fd_ = -1;
    bool uninstall_ = false;
};
