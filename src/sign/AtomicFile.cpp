#include "sign/AtomicFile.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace packagesign {

namespace {

std::string directoryOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Makes the rename itself durable; a failure here does not undo the rename,
// so it is not reported.
void syncDirectory(const std::string& dir) {
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

}  // namespace

AtomicFile::~AtomicFile() {
    discard();
}

bool AtomicFile::open(const std::string& target, unsigned mode, bool scratch) {
    discard();
    scratch_ = scratch;
    if (target.empty()) {
        return false;
    }
    std::string pattern = target + ".tmp-XXXXXX";
    const int fd = ::mkostemp(&pattern[0], O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    fd_ = fd;
    target_ = target;
    tempPath_ = pattern;
    if (::fchmod(fd_, mode) != 0) {
        discard();
        return false;
    }
    return true;
}

bool writeAll(int fd, const void* data, size_t size) {
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t n = ::write(fd, bytes, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        bytes += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool AtomicFile::write(const void* data, size_t size) {
    return fd_ >= 0 && writeAll(fd_, data, size);
}

bool AtomicFile::commit() {
    if (fd_ < 0) {
        return false;
    }
    const bool synced = scratch_ || ::fsync(fd_) == 0;
    const bool closed = ::close(fd_) == 0;
    fd_ = -1;
    if (!synced || !closed || ::rename(tempPath_.c_str(), target_.c_str()) != 0) {
        discard();
        return false;
    }
    tempPath_.clear();
    if (!scratch_) {
        syncDirectory(directoryOf(target_));
    }
    return true;
}

void AtomicFile::discard() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    if (!tempPath_.empty()) {
        ::unlink(tempPath_.c_str());
        tempPath_.clear();
    }
}

}  // namespace packagesign
