#include "system/ProcessOwnership.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <set>

#include "system/Environment.h"

namespace datacenter {

namespace {

const long kStopWaitMilliseconds = 5000;
const long kStopPollMilliseconds = 100;

// The target of a /proc link ("root", "cwd", "exe"), empty when unreadable.
std::string procLink(int pid, const char* name) {
    const std::string path = "/proc/" + std::to_string(pid) + "/" + name;
    char buffer[PATH_MAX];
    const ssize_t size = ::readlink(path.c_str(), buffer, sizeof(buffer) - 1);
    return size > 0 ? std::string(buffer, static_cast<size_t>(size)) : std::string();
}

// The state letter of /proc/PID/stat ('R', 'S', 'Z' ...), 0 when the process is gone.
char procState(int pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(stat, text)) {
        return 0;
    }
    // The command name may hold blanks and parentheses: the state follows the last ')'.
    const size_t close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() ? text[close + 2] : 0;
}

bool gone(int pid) {
    const char state = procState(pid);
    return state == 0 || state == 'Z' || state == 'X';
}

// The data directory as the kernel names it: links resolved, no trailing
// slash. Empty when it is not a directory (a link in its place is refused).
std::string physicalDirectory(const std::string& dataDir) {
    std::string path = dataDir;
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    struct stat info {};
    if (path.empty() || ::lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        return std::string();
    }
    char* real = ::realpath(path.c_str(), nullptr);
    if (!real) {
        return std::string();
    }
    std::string result(real);
    std::free(real);
    return result;
}

bool isInside(const std::string& path, const std::string& directory) {
    return path == directory || (path.size() > directory.size() && path.compare(0, directory.size(), directory) == 0 &&
                                 path[directory.size()] == '/');
}

int openProcessDescriptor(int pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

// Sends `signal` through the process descriptor when there is one, else by pid.
int sendSignal(int pid, int descriptor, int signal) {
#ifdef SYS_pidfd_send_signal
    if (descriptor >= 0) {
        return static_cast<int>(::syscall(SYS_pidfd_send_signal, descriptor, signal, nullptr, 0));
    }
#endif
    (void)descriptor;
    return ::kill(pid, signal);
}

struct Target {
    int pid;
    int descriptor;
};

}  // namespace

bool ProcessOwnership::sParsePid(const std::string& text, int& pid) {
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || errno != 0 || value <= 1 || value > INT_MAX) {
        return false;
    }
    pid = static_cast<int>(value);
    return true;
}

bool ProcessOwnership::sBelongsTo(int pid, const std::string& dataDir, std::string& reason) {
    if (pid <= 1) {
        reason = "not a process id above 1";
        return false;
    }
    const char state = procState(pid);
    if (state == 0) {
        reason = "no such process";
        return false;
    }
    if (state == 'Z' || state == 'X') {
        reason = "the process has ended (zombie)";
        return false;
    }
    const std::string directory = physicalDirectory(dataDir);
    if (directory.empty()) {
        reason = "the plugin's data directory is missing or not a directory";
        return false;
    }
    const std::string root = procLink(pid, "root");
    if (root == directory) {
        return true;
    }
    if (root != "/") {
        reason = root.empty() ? "its root cannot be read" : "its root " + root + " is not the plugin's directory";
        return false;
    }
    if (isInside(procLink(pid, "cwd"), directory) || isInside(procLink(pid, "exe"), directory)) {
        return true;
    }
    reason = "neither its root, working directory nor program lies in " + directory;
    return false;
}

std::vector<int> ProcessOwnership::sOwnedPids(const std::vector<std::string>& entries, const std::string& id,
                                              const std::string& dataDir) {
    std::vector<int> owned;
    std::set<int> seen;
    size_t looked = 0;
    for (const std::string& entry : entries) {
        if (entry.empty()) {
            continue;
        }
        if (++looked > kMaxEntries) {
            LOG(ERROR) << "plugin " << id << " lists more than " << kMaxEntries << " process ids; the rest are skipped";
            break;
        }
        int pid = 0;
        std::string reason;
        if (!sParsePid(entry, pid)) {
            reason = "not a process id above 1";
        } else if (!seen.insert(pid).second) {
            continue;
        } else if (sBelongsTo(pid, dataDir, reason)) {
            owned.push_back(pid);
            continue;
        }
        LOG(ERROR) << "skip pid '" << entry << "' of plugin " << id << ": " << reason;
    }
    return owned;
}

size_t ProcessOwnership::sStop(const std::vector<int>& pids, const std::string& dataDir) {
    std::vector<Target> targets;
    for (const int pid : pids) {
        // The descriptor is opened before the check: if the pid is reused
        // after it, signals through the descriptor fail instead of hitting
        // the newcomer.
        const int descriptor = openProcessDescriptor(pid);
        std::string reason;
        if (!sBelongsTo(pid, dataDir, reason)) {
            LOG(ERROR) << "skip pid " << pid << ": " << reason;
            if (descriptor >= 0) {
                ::close(descriptor);
            }
            continue;
        }
        const int result = sendSignal(pid, descriptor, SIGTERM);
        LOG(INFO) << "kill result is " << result;
        if (result == -1) {
            LOG(ERROR) << "kill failed, pid is" << pid;
        }
        targets.push_back(Target{pid, descriptor});
    }
    for (long waited = 0; waited < kStopWaitMilliseconds; waited += kStopPollMilliseconds) {
        bool all = true;
        for (const Target& target : targets) {
            all = all && gone(target.pid);
        }
        if (all) {
            break;
        }
        Environment::sSleepMilliseconds(kStopPollMilliseconds);
    }
    for (const Target& target : targets) {
        std::string reason;
        const bool sameProcess = target.descriptor >= 0 || sBelongsTo(target.pid, dataDir, reason);
        if (!gone(target.pid) && sameProcess) {
            sendSignal(target.pid, target.descriptor, SIGKILL);
        }
        if (target.descriptor >= 0) {
            ::close(target.descriptor);
        }
    }
    return targets.size();
}

}  // namespace datacenter
