#pragma once
// The time-machine plugin keeps its backups on the user disk from version
// 1.3 on; data that older versions left inside its sandbox is moved there
// when a newer version is installed.
#include <string>

class TimeMachineInfo {
public:
    static std::string getPluginId() { return "5017400000000000001"; }
    static std::string getAfpData() { return "/userdisk/afp"; }
    static std::string getData() { return "/userdisk/timecapsule"; }
};

// What a migration moved, seen by comparing the folders before and after it,
// so that a failed upgrade can move the data back with the old version.
class TimeMachineMove {
public:
    // Notes which folders are where before a migration.
    static TimeMachineMove sBefore();
    // What sBefore() saw, as one line, and back: an upgrade keeps it with
    // its backup so that a restore after a crash knows what was moved.
    std::string text() const;
    static bool sFromText(const std::string& text, TimeMachineMove& move);
    // Notes what the migration since sBefore() moved.
    void after();
    bool moved() const { return timecapsule_ || afp_; }
    // Moves back what was moved: the afp data first (it lies inside the
    // backup folder), then the backup folder. Through descriptors of the two
    // parents, never through a link. False (logged) when something stays.
    bool undo() const;

private:
    bool oldTimecapsule_ = false;
    bool newTimecapsule_ = false;
    bool oldAfp_ = false;
    bool newAfp_ = false;
    bool timecapsule_ = false;
    bool afp_ = false;
};

// Where the old versions kept their data (below the application data path)
// and where it goes (root-prefixed fixed paths).
std::string timecapsuleOlddir();
std::string afpOlddir();
std::string timecapsuleNewdir();
std::string afpNewdir();
