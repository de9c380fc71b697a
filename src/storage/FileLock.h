#pragma once
// An exclusive flock on a file that another process, perhaps a plugin, can
// lock too. A plugin holds its own locks as long as it likes, so the core
// never waits for one without a bound: it asks again and again until the
// lock is free or the time is up.
namespace datacenter {

class FileLock {
public:
    enum Result { LOCKED, TIMED_OUT, FAILED };
    // How long the core waits for a lock a plugin may hold, by default.
    static const int kDefaultWaitMs = 3000;

    // Takes the exclusive lock on the open file `fd`, waiting at most
    // `waitMs` milliseconds for another holder to let go.
    static Result sLockExclusive(int fd, int waitMs = kDefaultWaitMs);
};

}  // namespace datacenter
