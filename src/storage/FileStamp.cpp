#include "storage/FileStamp.h"

namespace datacenter {
namespace {

bool sameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

bool FileStamp::operator==(const FileStamp& other) const {
    return device == other.device && inode == other.inode && size == other.size && sameTime(modified, other.modified) &&
           sameTime(changed, other.changed);
}

FileStamp FileStamp::sFrom(const struct stat& status) {
    FileStamp stamp;
    stamp.device = status.st_dev;
    stamp.inode = status.st_ino;
    stamp.size = status.st_size;
    stamp.modified = status.st_mtim;
    stamp.changed = status.st_ctim;
    return stamp;
}

bool FileStamp::sOf(const std::string& path, FileStamp& stamp) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
        return false;
    }
    stamp = sFrom(status);
    return true;
}

bool FileStamp::isRacy(time_t now) const {
    // The modification time is what a write inside the same tick would leave
    // unchanged; the change time moves with it, and a file whose times were
    // set back by hand is not what a writer of these files does.
    return modified.tv_sec + kRacyWindow >= now;
}

}  // namespace datacenter
