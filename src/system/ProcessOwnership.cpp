#include "system/ProcessOwnership.h"

#include <dirent.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
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

}  // namespace

std::string ProcessOwnership::sPhysicalDirectory(const std::string& dataDir) {
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

namespace {

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

std::atomic<bool> gUnkillable{false};

// Sends `signal` through the process descriptor when there is one, else by pid.
int sendSignal(int pid, int descriptor, int signal) {
    if (gUnkillable.load()) {
        return 0;
    }
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
    return sBelongsToDirectory(pid, sPhysicalDirectory(dataDir), reason);
}

bool ProcessOwnership::sBelongsToDirectory(int pid, const std::string& directory, std::string& reason) {
    if (directory.empty()) {
        reason = "the plugin's data directory is missing or not a directory";
        return false;
    }
    if (pid <= 1 || pid == static_cast<int>(::getpid())) {
        reason = "not a process of a plugin";
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

namespace {

const long kKillWaitMilliseconds = 2000;
const int kKillRounds = 3;
// Passes of the freeze: each stops what the one before found new.
const int kFreezePasses = 64;

// The processes a stop holds, each through a descriptor opened before it
// was found to be the plugin's, so a reused pid is never hit.
class Frozen {
public:
    explicit Frozen(std::string directory) : directory_(std::move(directory)) {}
    ~Frozen() {
        for (const auto& held : held_) {
            if (held.second >= 0) {
                ::close(held.second);
            }
        }
    }
    Frozen(const Frozen&) = delete;
    Frozen& operator=(const Frozen&) = delete;

    // Stops every process of the plugin with SIGSTOP, scanning again until a
    // pass finds nothing new. True when the picture held still.
    bool freeze() {
        for (int pass = 0; pass < kFreezePasses; ++pass) {
            bool found = false;
            for (const int pid : ProcessOwnership::sFind(directory_)) {
                if (held_.count(pid) == 0) {
                    found = hold(pid) || found;
                }
            }
            if (!found) {
                return true;
            }
        }
        return false;
    }
    // Sends `signal` to every process held, then SIGCONT so that it acts.
    void signalAll(int signal) {
        for (const auto& held : held_) {
            sendSignal(held.first, held.second, signal);
            sendSignal(held.first, held.second, SIGCONT);
        }
    }
    // Waits up to `milliseconds` for every held process to end; forgets those that did.
    void waitGone(long milliseconds) {
        for (long waited = 0;; waited += kStopPollMilliseconds) {
            for (auto it = held_.begin(); it != held_.end();) {
                if (gone(it->first)) {
                    if (it->second >= 0) {
                        ::close(it->second);
                    }
                    it = held_.erase(it);
                } else {
                    ++it;
                }
            }
            if (held_.empty() || waited >= milliseconds) {
                return;
            }
            Environment::sSleepMilliseconds(kStopPollMilliseconds);
        }
    }
    size_t size() const { return held_.size(); }

private:
    bool hold(int pid) {
        const int descriptor = openProcessDescriptor(pid);
        std::string reason;
        if (!ProcessOwnership::sBelongsToDirectory(pid, directory_, reason) || gone(pid)) {
            if (descriptor >= 0) {
                ::close(descriptor);
            }
            return false;
        }
        sendSignal(pid, descriptor, SIGSTOP);
        held_[pid] = descriptor;
        return true;
    }

    std::string directory_;
    std::map<int, int> held_;  // pid -> process descriptor (-1 without one)
};

}  // namespace

std::vector<int> ProcessOwnership::sFind(const std::string& dataDir) {
    std::vector<int> found;
    const std::string directory = sPhysicalDirectory(dataDir);
    DIR* proc = directory.empty() ? nullptr : ::opendir("/proc");
    if (!proc) {
        return found;
    }
    while (const struct dirent* entry = ::readdir(proc)) {
        int pid = 0;
        std::string reason;
        if (sParsePid(entry->d_name, pid) && sBelongsToDirectory(pid, directory, reason) && !gone(pid)) {
            found.push_back(pid);
            if (found.size() == kMaxFound) {
                break;
            }
        }
    }
    ::closedir(proc);
    return found;
}

size_t ProcessOwnership::sStopAll(const std::string& id, const std::string& dataDir) {
    Frozen frozen(sPhysicalDirectory(dataDir));
    frozen.freeze();
    if (frozen.size() == 0) {
        return 0;
    }
    LOG(WARNING) << "plugin " << id << ": stopping " << frozen.size() << " more process(es) found in /proc";
    frozen.signalAll(SIGTERM);
    frozen.waitGone(kStopWaitMilliseconds);
    for (int round = 0; round < kKillRounds; ++round) {
        // Whatever forked in the meantime is stopped with the rest.
        frozen.freeze();
        if (frozen.size() == 0) {
            return 0;
        }
        frozen.signalAll(SIGKILL);
        frozen.waitGone(kKillWaitMilliseconds);
    }
    const std::vector<int> left = sFind(dataDir);
    for (const int pid : left) {
        LOG(ERROR) << "plugin " << id << ": process " << pid << " could not be stopped";
    }
    return left.size();
}

void ProcessOwnership::sPretendUnkillable(bool pretend) {
    gUnkillable = pretend;
}

}  // namespace datacenter
