#pragma once
// Which processes belong to a plugin, as the kernel sees them. The pid file
// is world-writable, so a pid listed for a plugin is only a claim: before the
// core signals or samples a process it checks /proc. In a sandbox the
// process's root (/proc/PID/root) is the plugin's data directory; unconfined
// (the simulator's logging mode) its root is "/" and its working directory or
// its executable lies inside the data directory. Zombies and every other
// process are refused with a reason in words.
#include <string>
#include <vector>

namespace datacenter {

class ProcessOwnership {
public:
    // At most this many pid entries are looked at per call; the rest are
    // skipped with a log line, so a flooded pid file cannot stall a stop.
    static const size_t kMaxEntries = 64;

    // A process id that may be signalled: a plain decimal (no sign, no
    // blanks) above 1. kill(0), kill(-1) and kill(1) as root would hit our
    // own group, every process or init.
    static bool sParsePid(const std::string& text, int& pid);

    // True when process `pid` is alive (not a zombie) and belongs to the
    // plugin whose data directory is `dataDir`; otherwise false with the
    // reason in `reason`.
    static bool sBelongsTo(int pid, const std::string& dataDir, std::string& reason);
    // The same for a directory already resolved by sPhysicalDirectory.
    static bool sBelongsToDirectory(int pid, const std::string& directory, std::string& reason);
    // The data directory as the kernel names it (links resolved, no trailing
    // slash); empty when it is missing, a link or not a directory.
    static std::string sPhysicalDirectory(const std::string& dataDir);

    // The pids of `entries` that pass sParsePid and sBelongsTo, each once, in
    // order, at most kMaxEntries entries read. Every skipped entry is logged
    // with `id` and its reason.
    static std::vector<int> sOwnedPids(const std::vector<std::string>& entries, const std::string& id,
                                       const std::string& dataDir);

    // Stops the processes: SIGTERM to each, up to five seconds in all for
    // them to end, then SIGKILL to those left. Each signal goes through a
    // process descriptor opened before the ownership check where the kernel
    // has them, so a pid reused in between is never hit. Returns how many
    // processes were signalled.
    static size_t sStop(const std::vector<int>& pids, const std::string& dataDir);

    // Every live process of the plugin whose data directory is `dataDir`, as
    // /proc shows them (sBelongsTo), whatever the pid file says: children
    // that changed session or process group too. At most kMaxFound.
    static std::vector<int> sFind(const std::string& dataDir);
    static const size_t kMaxFound = 4096;

    // Ends every process of the plugin, not only those it listed: the
    // processes found are stopped (SIGSTOP) and /proc is scanned again until
    // a pass finds none it has not stopped, so a process that keeps forking
    // cannot outrun the stop; then SIGTERM (and SIGCONT), up to five seconds
    // to end, and rounds of the same with SIGKILL. Returns how many
    // processes are still alive afterwards (0: the plugin is stopped); each
    // survivor is logged with `id`.
    static size_t sStopAll(const std::string& id, const std::string& dataDir);

    // For tests: signals are not sent, as if every process of a plugin
    // were stuck where no signal reaches it (uninterruptible sleep).
    static void sPretendUnkillable(bool pretend);
};

}  // namespace datacenter
