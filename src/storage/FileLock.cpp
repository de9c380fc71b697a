#include "storage/FileLock.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace datacenter {
namespace {

bool sameInode(int fd, const std::string& path) {
    struct stat byFd;
    struct stat byPath;
    return fstat(fd, &byFd) == 0 && ::stat(path.c_str(), &byPath) == 0 && byFd.st_dev == byPath.st_dev &&
           byFd.st_ino == byPath.st_ino;
}

}  // namespace

FileLock::FileLock(const std::string& path, unsigned mode) {
    for (;;) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, mode);
        if (fd < 0) {
            LOG(ERROR) << "cannot open " << path << " for locking: " << strerror(errno);
            openFailed_ = true;
            return;
        }
        int rc;
        do {
            rc = flock(fd, LOCK_EX);
        } while (rc != 0 && errno == EINTR);
        if (rc != 0) {
            LOG(ERROR) << "cannot lock " << path << ": " << strerror(errno);
            ::close(fd);
            return;
        }
        if (sameInode(fd, path)) {
            fd_ = fd;
            return;
        }
        // The file was replaced while we waited: lock the current one instead.
        ::close(fd);
    }
}

FileLock::~FileLock() {
    unlock();
}

bool FileLock::unlock() {
    if (fd_ < 0) {
        return true;
    }
    const bool released = flock(fd_, LOCK_UN) == 0;
    ::close(fd_);
    fd_ = -1;
    return released;
}

}  // namespace datacenter
