#pragma once
// What an upgrade moved aside and what it added, so that the installed
// version can come back as it was when the upgrade fails or dies.
//
// The folder "local_install_tmp/<id>.previous/" below the plugin root lies in
// the installer's private staging area (0700) on the plugin's file system.
// Before unpacking writes over an entry of the plugin's tree, the old file is
// renamed (never copied) into "files/" there, at the same relative path; an
// entry that did not exist is first appended to the list "added". The store
// record and the file record are copied into the folder when the backup
// begins. Restoring renames every old file back, removes what the upgrade
// added (files, then the folders it made, deepest first) and writes the two
// records back; everything else in the tree (the plugin's runtime data) stays.
// When the upgrade migrated the time machine's data out of the tree, the
// restore moves it back too.
// Every step is relative to descriptors opened without following links, and
// restoring twice does no harm, so recovery after a crash can repeat it.
#include <set>
#include <string>
#include <vector>

#include "storage/PluginTree.h"
#include "storage/UniqueFd.h"

class UpgradeBackup {
public:
    explicit UpgradeBackup(const std::string& id);

    // The folder's path relative to the plugin root.
    static std::string sFolderName(const std::string& id);

    // Makes a new empty folder (a stale one goes first) and copies the
    // records into it. False (logged) when that fails.
    bool begin();
    bool active() const { return list_.valid(); }

    // Before a file is written at `relative` of the plugin's tree, whose
    // parent folder the caller holds open as `directoryFd`: moves an old
    // entry there aside, or lists the name as added. False when that failed.
    bool beforeFile(int directoryFd, const std::string& relative);
    // The same, opening the parent folder itself.
    bool beforeFile(const std::string& relative);
    // Before the folder `relative` (and its missing parents) is made: lists
    // each one that does not exist yet.
    bool beforeDirectory(const std::string& relative);
    // Flushes the list of added names to disk.
    void sync();
    // Keeps, on disk, what the time-machine migration is about to move
    // (TimeMachineMove::text()), so that a restore, also one after a crash,
    // moves it back. False (logged) when it cannot be kept.
    bool noteTimeMachine(const std::string& before);

    // Puts the old version back (see the class comment); true when nothing
    // was left out. The folder is removed afterwards, but only then: a
    // restore that left something out marks the folder pending (with
    // whether the old version ran, `wasEnabled`), and it stays until a later
    // restore (at the next start of the core) puts everything back.
    bool restore(bool wasEnabled = false);
    // Whether a restore of plugin `id` is pending; `wasEnabled` gets the
    // flag it was marked with.
    static bool sPending(const std::string& id, bool* wasEnabled = nullptr);
    // The plugins whose restore is pending.
    static std::vector<std::string> sPendingIds();
    // Empties the staging folder "local_install_tmp/" except for the
    // backups whose restore is pending.
    static void sClearStaging();
    // Removes the folder: the upgrade is complete.
    void discard();

private:
    bool note(const std::string& relative);
    bool copyRecord(const std::string& from, const std::string& to);
    bool writeBack(const std::string& from, const std::string& to);
    bool restoreFiles(int mirrorFd, const std::string& relative);
    bool undoTimeMachine();

    std::string id_;
    std::string folder_;  // relative to the plugin root
    datacenter::PluginTree root_;
    datacenter::UniqueFd list_;
    std::set<std::string> seen_;  // folders already looked at
};
