#pragma once
// A child process that works in `directory` (a plugin's data directory, so
// that /proc counts it as the plugin's own process: the core sends a plugin
// nothing unless the socket on its recorded port is held by one). `start`
// runs in the child and returns a number for the parent, for a server the
// port it listens on (0 when it failed); the child then keeps what it
// started until the object goes.
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <csignal>
#include <functional>
#include <string>

namespace testsupport {

class ChildServer {
public:
    ChildServer(const std::string& directory, const std::function<int()>& start) {
        boost::filesystem::create_directories(directory);
        int ready[2] = {-1, -1};
        if (pipe(ready) != 0 || pipe(done_) != 0) {
            return;
        }
        pid_ = fork();
        if (pid_ == 0) {
            close(ready[0]);
            close(done_[1]);
            int port = chdir(directory.c_str()) == 0 ? start() : 0;
            (void)!write(ready[1], &port, sizeof(port));
            char byte;
            (void)!read(done_[0], &byte, 1);  // until the parent closes its end
            _exit(0);
        }
        close(ready[1]);
        close(done_[0]);
        if (read(ready[0], &port_, sizeof(port_)) != sizeof(port_)) {
            port_ = 0;
        }
        close(ready[0]);
    }
    ~ChildServer() {
        close(done_[1]);
        if (pid_ > 0) {
            int status = 0;
            waitpid(pid_, &status, 0);
        }
    }
    ChildServer(const ChildServer&) = delete;
    ChildServer& operator=(const ChildServer&) = delete;

    int port() const { return port_; }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
    int port_ = 0;
    int done_[2] = {-1, -1};
};

}  // namespace testsupport
