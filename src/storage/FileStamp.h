#pragma once
// What identifies one version of a file without reading it: a cache of what
// was parsed from a file stays valid while the stamp stays the same. A stamp
// taken within kRacyWindow seconds of its modification time is not trusted,
// because a second write within the same tick of the file system's clock
// could leave every field of it unchanged.
#include <sys/stat.h>
#include <sys/types.h>

#include <ctime>
#include <string>

namespace datacenter {

struct FileStamp {
    // Covers the coarsest time stamps of the file systems a user disk may
    // carry (two seconds on FAT).
    static const int kRacyWindow = 2;

    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{0, 0};
    timespec changed{0, 0};

    bool operator==(const FileStamp& other) const;
    bool operator!=(const FileStamp& other) const { return !(*this == other); }

    static FileStamp sFrom(const struct stat& status);
    // The stamp of `path` (links followed); false when it cannot be looked at.
    static bool sOf(const std::string& path, FileStamp& stamp);
    // Whether a write at `now` or shortly before could hide behind this stamp.
    bool isRacy(time_t now) const;
};

}  // namespace datacenter
