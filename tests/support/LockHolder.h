#pragma once
// Another process holding an flock on a file (created when missing) until
// release() or the end of the object, as an installer or a plugin would.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace testsupport {

class LockHolder {
public:
    explicit LockHolder(const std::string& path) {
        int ready[2];
        if (pipe(ready) != 0 || pipe(done_) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            close(done_[1]);
            const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
            const char ok = fd >= 0 && flock(fd, LOCK_EX) == 0 ? '1' : '0';
            (void)!write(ready[1], &ok, 1);
            char byte;
            (void)!read(done_[0], &byte, 1);
            _exit(0);
        }
        close(ready[1]);
        close(done_[0]);
        char ok = '0';
        (void)!read(ready[0], &ok, 1);
        close(ready[0]);
        held_ = ok == '1';
    }
    ~LockHolder() { release(); }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

    bool held() const { return held_; }
    // Ends the holder; the kernel drops its lock with it.
    void release() {
        if (pid_ > 0) {
            close(done_[1]);
            waitpid(pid_, nullptr, 0);
            pid_ = -1;
        }
        held_ = false;
    }

private:
    int done_[2] = {-1, -1};
    pid_t pid_ = -1;
    bool held_ = false;
};

}  // namespace testsupport
