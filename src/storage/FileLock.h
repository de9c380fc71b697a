#pragma once
// An exclusive flock on a file itself, shared with other processes. Files
// written crash-safely are replaced by rename, which gives the path a new
// inode; a lock on the old inode would not exclude a process that opened the
// path afterwards. So after locking, the locked descriptor's inode is compared
// with the path's, and on a mismatch the file is reopened and locked again.
#include <string>

namespace datacenter {

class FileLock {
public:
    // Opens (creating it with `mode` if missing) and locks `path`, waiting for other holders.
    explicit FileLock(const std::string& path, unsigned mode = 0777);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // True when the lock is held.
    bool locked() const { return fd_ >= 0; }
    // True when the file could not even be opened (as opposed to not locked).
    bool openFailed() const { return openFailed_; }
    // Releases the lock; false when the release failed. Safe to call twice.
    bool unlock();

private:
    int fd_ = -1;
    bool openFailed_ = false;
};

}  // namespace datacenter
