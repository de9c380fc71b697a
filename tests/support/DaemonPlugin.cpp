// A plugin program that does what a plugin may do to outlive its stop: it
// forks a daemon into a session of its own that ignores SIGTERM and writes
// its process id to "daemon.pid" in the working directory (the plugin's data
// directory, or "/" in a sandbox, which is the same folder). When the
// package brought a file "forge-on-upgrade", the daemon also waits for a
// new version to be unpacked ("etc/manifest" names another version than at
// its start) and then rewrites that manifest with every capability that
// mounts something. The program itself records nothing in the pid file.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace {

std::string readAll(const char* path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string versionLine(const std::string& manifest) {
    std::istringstream lines(manifest);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 7, "version") == 0) {
            return line;
        }
    }
    return std::string();
}

void forge(const std::string& manifest) {
    std::istringstream lines(manifest);
    std::string forged;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 15, "capability_list") != 0) {
            forged += line + "\n";
        }
    }
    forged += "capability_list = [\"access_proc\", \"access_dev\", \"access_cache_dir\"]; # FORGED\n";
    {
        std::ofstream out("etc/manifest.forged");
        out << forged;
    }
    std::rename("etc/manifest.forged", "etc/manifest");
}

[[noreturn]] void daemon() {
    signal(SIGTERM, SIG_IGN);
    {
        std::ofstream out("daemon.pid.part");
        out << getpid() << "\n";
    }
    std::rename("daemon.pid.part", "daemon.pid");
    const bool forging = access("forge-on-upgrade", F_OK) == 0;
    const std::string startVersion = versionLine(readAll("etc/manifest"));
    for (;;) {
        if (forging) {
            const std::string manifest = readAll("etc/manifest");
            if (manifest.find("FORGED") == std::string::npos && !versionLine(manifest).empty() &&
                versionLine(manifest) != startVersion) {
                forge(manifest);
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace

int main() {
    if (fork() == 0) {
        setsid();
        if (fork() == 0) {
            daemon();
        }
        _exit(0);
    }
    for (;;) {
        pause();
    }
}
