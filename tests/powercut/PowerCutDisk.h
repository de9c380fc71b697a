#pragma once
// Folders of the test root held by powercutfs: their content lives in a
// backing copy, and unmounting cuts the power, losing what was not synced.
// The power can also be cut at the N-th fsync of an operation: every later
// call fails as a disk that is gone would, and the operation is killed.
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

class PowerCutDisk {
public:
    // Why the simulator cannot run here, or "" when it can.
    static std::string unavailable();

    // Moves each folder's content to a backing copy; nothing is mounted yet.
    explicit PowerCutDisk(const std::vector<std::string>& folders);
    ~PowerCutDisk();

    // Mounts every folder, counting fsync calls from 0. With `cutAt` the
    // power goes at that call; with `lose` an unmount drops unsynced data.
    void mount(uint64_t cutAt, bool lose);
    // Kills every process working in the folders and unmounts them; with
    // `lose` set at mount this is the power cut.
    void unmount();

    uint64_t points() const;
    // The call and path of each point since the last mount, one a line.
    std::vector<std::string> pointLog() const;
    bool powerIsOff() const;
    // Kills the processes whose working directory or root lies in a folder.
    void killProcessesInside() const;

    // Keeps the backing copies aside, and puts them back (unmounted only).
    void save();
    void restore();

private:
    struct State {
        uint64_t points;
        uint64_t cutAt;
        uint64_t cut;
        uint64_t lose;
    };
    State readState() const;
    std::string backing(size_t index) const;

    std::vector<std::string> folders_;
    std::vector<pid_t> servers_;
    std::string work_;
};

}  // namespace testsupport
