#pragma once
// Another process holding an flock on a file (created when missing) until
// release() or the end of the object, as an installer or a plugin would.
#include <fcntl.h>
#include <sys/file.h>

#include <memory>
#include <string>

#include "support/ChildServer.h"

namespace testsupport {

class LockHolder {
public:
    explicit LockHolder(const std::string& path)
        : child_(new ChildServer("/", [path] {
              const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
              return fd >= 0 && flock(fd, LOCK_EX) == 0 ? 1 : 0;
          })) {}
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

    bool held() const { return child_ && child_->port() == 1; }
    // Ends the holder; the kernel drops its lock with it.
    void release() { child_.reset(); }

private:
    std::unique_ptr<ChildServer> child_;
};

}  // namespace testsupport
