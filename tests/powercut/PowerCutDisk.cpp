#include "powercut/PowerCutDisk.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "support/TestSupport.h"

namespace fs = boost::filesystem;

namespace testsupport {
namespace {

const char* const kProgram = DC_POWERCUTFS;

bool isMountPoint(const std::string& folder) {
    struct stat self, parent;
    return stat(folder.c_str(), &self) == 0 && stat((folder + "/..").c_str(), &parent) == 0 &&
           self.st_dev != parent.st_dev;
}

// Whether `folder` is mounted, from the kernel's table: on a cut disk a stat
// fails, which must not read as "unmounted".
bool inMountTable(const std::string& folder) {
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, root, point;
        if (fields >> id >> parent >> device >> root >> point && point == folder) {
            return true;
        }
    }
    return false;
}

// Reaps `pid`, killing it when it has not ended within the usual bound.
bool reaped(pid_t pid) {
    bool ended = false;
    waitUntil([&] { return ended = ended || waitpid(pid, nullptr, WNOHANG) == pid; });
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    return ended;
}

bool inside(const std::string& link, const std::string& folder) {
    char target[4096];
    const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
    if (n <= 0) {
        return false;
    }
    const std::string path(target, static_cast<size_t>(n));
    return path == folder || path.compare(0, folder.size() + 1, folder + "/") == 0;
}

// Starts powercutfs on `folder`, its output going to the file `log`: a
// server left behind must not hold the test runner's pipes open. Its pid
// once the folder is mounted; -1 when it ended or did not mount in time.
pid_t startServer(const std::string& backing, const std::string& folder, const std::string& state,
                  const std::string& log) {
    const pid_t server = fork();
    if (server == 0) {
        const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        const int none = open("/dev/null", O_RDONLY);
        if (out < 0 || none < 0 || dup2(none, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) {
            _exit(127);
        }
        execl(kProgram, kProgram, backing.c_str(), folder.c_str(), state.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    bool ended = false;
    waitUntil([&] {
        ended = ended || waitpid(server, nullptr, WNOHANG) == server;
        return ended || isMountPoint(folder);
    });
    if (ended || !isMountPoint(folder)) {
        if (!ended) {
            kill(server, SIGKILL);
            waitpid(server, nullptr, 0);
        }
        return -1;
    }
    return server;
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

// Why this machine does not let powercutfs mount at all (a container can
// hide FUSE even from root), from a trial mount of an empty folder; "" when
// it mounts. Only libfuse's own complaints count: any other failure is a
// fault of powercutfs, which the suite's own mounts then report.
std::string fuseRefusal() {
    const std::string dir = makeScratchDir("powercut-probe");
    fs::create_directory(dir + "/backing");
    fs::create_directory(dir + "/mount");
    writeFile(dir + "/state", std::string(4 * sizeof(uint64_t), '\0'));
    const pid_t server = startServer(dir + "/backing", dir + "/mount", dir + "/state", dir + "/log");
    if (server > 0) {
        runCommand("timeout 30 fusermount3 -u '" + dir + "/mount' 2>/dev/null");
        reaped(server);
        return "";
    }
    const std::string log = readFile(dir + "/log");
    return log.find("fuse") == std::string::npos ? "" : "a FUSE file system cannot be mounted here: " + firstLine(log);
}

void copyTree(const std::string& from, const std::string& to) {
    const CommandResult copied = runCommand("rm -rf '" + to + "' && cp -a '" + from + "' '" + to + "' 2>&1");
    if (copied.exitStatus != 0) {
        throw std::runtime_error("cannot copy " + from + ": " + copied.output);
    }
}

}  // namespace

std::string PowerCutDisk::unavailable() {
    if (std::string(kProgram).empty()) {
        return "powercutfs was not built (libfuse3 and its pkg-config file fuse3 are missing)";
    }
    if (geteuid() != 0) {
        return "mounting powercutfs needs root";
    }
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
        return "/dev/fuse is missing or not usable";
    }
    if (runCommand("command -v fusermount3 >/dev/null").exitStatus != 0) {
        return "fusermount3 is missing (Debian package fuse3)";
    }
    static const std::string refusal = fuseRefusal();
    return refusal;
}

PowerCutDisk::PowerCutDisk(const std::vector<std::string>& folders)
    : folders_(folders), work_(makeScratchDir("powercut")) {
    writeFile(work_ + "/state", std::string(sizeof(State), '\0'));
    for (size_t i = 0; i < folders_.size(); ++i) {
        fs::create_directories(folders_[i]);
        // The kernel's table and /proc name folders by their real paths.
        folders_[i] = fs::canonical(folders_[i]).string();
        fs::rename(folders_[i], backing(i));
        fs::create_directory(folders_[i]);
    }
}

PowerCutDisk::~PowerCutDisk() {
    try {
        unmount();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "PowerCutDisk: %s\n", e.what());
    }
}

std::string PowerCutDisk::backing(size_t index) const {
    return work_ + "/disk" + std::to_string(index);
}

void PowerCutDisk::mount(uint64_t cutAt, bool lose) {
    const State state{0, cutAt, 0, lose ? 1u : 0u};
    writeFile(work_ + "/state", std::string(reinterpret_cast<const char*>(&state), sizeof state));
    writeFile(work_ + "/state.points", "");
    for (size_t i = 0; i < folders_.size(); ++i) {
        const std::string log = work_ + "/powercutfs.log";
        const pid_t server = startServer(backing(i), folders_[i], work_ + "/state", log);
        if (server < 0) {
            throw std::runtime_error("powercutfs did not mount " + folders_[i] + ": " + firstLine(readFile(log)));
        }
        servers_.push_back(server);
    }
}

void PowerCutDisk::killProcessesInside() const {
    DIR* proc = opendir("/proc");
    for (dirent* entry; proc && (entry = readdir(proc)) != nullptr;) {
        const pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name));
        if (pid <= 0 || pid == getpid()) {
            continue;
        }
        const std::string base = std::string("/proc/") + entry->d_name;
        for (const std::string& folder : folders_) {
            if (inside(base + "/cwd", folder) || inside(base + "/root", folder) || inside(base + "/exe", folder)) {
                kill(pid, SIGKILL);
            }
        }
    }
    if (proc) {
        closedir(proc);
    }
}

void PowerCutDisk::unmount() {
    std::string failed;
    for (size_t i = 0; i < servers_.size(); ++i) {
        const std::string folder = folders_[i];
        const bool gone = waitUntil([&] {
            killProcessesInside();
            runCommand("timeout 30 fusermount3 -u '" + folder + "' 2>/dev/null");
            return !inMountTable(folder);
        });
        if (!gone) {
            kill(servers_[i], SIGKILL);
            runCommand("timeout 30 fusermount3 -u -z '" + folder + "' 2>/dev/null");
            failed += " cannot unmount " + folder + ";";
        }
        // Unmounted, powercutfs puts back what was lost and ends.
        if (!reaped(servers_[i]) && gone) {
            failed += " powercutfs of " + folder + " did not end;";
        }
    }
    servers_.clear();
    if (!failed.empty()) {
        throw std::runtime_error(failed);
    }
}

PowerCutDisk::State PowerCutDisk::readState() const {
    State state{};
    const std::string bytes = readFile(work_ + "/state");
    if (bytes.size() >= sizeof state) {
        std::copy(bytes.begin(), bytes.begin() + sizeof state, reinterpret_cast<char*>(&state));
    }
    return state;
}

uint64_t PowerCutDisk::points() const {
    return readState().points;
}

std::vector<std::string> PowerCutDisk::pointLog() const {
    return readLines(work_ + "/state.points");
}

bool PowerCutDisk::powerIsOff() const {
    return readState().cut != 0;
}

void PowerCutDisk::save() {
    for (size_t i = 0; i < folders_.size(); ++i) {
        copyTree(backing(i), backing(i) + ".saved");
    }
}

void PowerCutDisk::restore() {
    for (size_t i = 0; i < folders_.size(); ++i) {
        copyTree(backing(i) + ".saved", backing(i));
    }
}

}  // namespace testsupport
