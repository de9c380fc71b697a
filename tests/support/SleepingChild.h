#pragma once
// A child process that sleeps until killed, leader of its own process group
// (so that a signal to the group would reach it), optionally ignoring
// SIGTERM, optionally working in `directory` (a plugin's own process, as
// /proc shows it, works in the plugin's data directory). It is reaped on a thread of its own, so that its death is seen
// at once (no zombie left in /proc), and killed when the object goes.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <thread>

namespace testsupport {

class SleepingChild {
public:
    explicit SleepingChild(bool ignoreTerm = false, const std::string& directory = std::string()) {
        // The read end sees its end of file when the child's exec closes the
        // write end: by then it works in `directory` and runs "sleep".
        int ready[2] = {-1, -1};
        if (pipe2(ready, O_CLOEXEC) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            setpgid(0, 0);
            if (!directory.empty() && chdir(directory.c_str()) != 0) {
                _exit(126);
            }
            if (ignoreTerm) {
                signal(SIGTERM, SIG_IGN);
            }
            execlp("sleep", "sleep", "60", static_cast<char*>(nullptr));
            _exit(127);
        }
        close(ready[1]);
        char byte = 0;
        while (read(ready[0], &byte, 1) > 0) {
        }
        close(ready[0]);
        reaper_ = std::thread([this] { waitpid(pid_, &status_, 0); });
    }
    ~SleepingChild() {
        kill(pid_, SIGKILL);
        if (reaper_.joinable()) {
            reaper_.join();
        }
    }
    SleepingChild(const SleepingChild&) = delete;
    SleepingChild& operator=(const SleepingChild&) = delete;

    pid_t pid() const { return pid_; }
    // Waits for the child's end and returns the signal that ended it (0 for none).
    int deathSignal() {
        reaper_.join();
        return WIFSIGNALED(status_) ? WTERMSIG(status_) : 0;
    }

private:
    pid_t pid_ = -1;
    int status_ = 0;
    std::thread reaper_;
};

}  // namespace testsupport
