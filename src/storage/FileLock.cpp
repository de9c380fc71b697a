#include "storage/FileLock.h"

#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

namespace datacenter {

FileLock::Result FileLock::sLockExclusive(int fd, int waitMs) {
    // Short naps first, so that a lock held for a moment costs little.
    int napMs = 5;
    for (int waited = 0;;) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return LOCKED;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EWOULDBLOCK) {
            return FAILED;
        }
        if (waited >= waitMs) {
            return TIMED_OUT;
        }
        const int nap = std::min(napMs, waitMs - waited);
        std::this_thread::sleep_for(std::chrono::milliseconds(nap));
        waited += nap;
        napMs = std::min(napMs * 2, 100);
    }
}

}  // namespace datacenter
