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

// Where the old versions kept their data (below the application data path)
// and where it goes (root-prefixed fixed paths).
std::string timecapsuleOlddir();
std::string afpOlddir();
std::string timecapsuleNewdir();
std::string afpNewdir();
