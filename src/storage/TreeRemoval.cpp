#include "storage/TreeRemoval.h"

#include <dirent.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace datacenter {

namespace {

const int kOpenDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
// Longest path shown whole in a message; deeper ones are shortened.
const size_t kShownPathLimit = PATH_MAX;

TreeRemoval::Kind kindOf(const struct stat& st) {
    if (S_ISLNK(st.st_mode)) {
        return TreeRemoval::LINK;
    }
    if (S_ISDIR(st.st_mode)) {
        return TreeRemoval::DIRECTORY;
    }
    return S_ISREG(st.st_mode) ? TreeRemoval::REGULAR : TreeRemoval::OTHER;
}

std::string childPath(const std::string& parent, const std::string& name) {
    return parent.empty() || parent.back() == '/' ? parent + name : parent + "/" + name;
}

// Mount id of the open file and whether it is the root of a mount. Without
// statx (older kernels) both stay unknown and only the device tells.
struct MountPlace {
    bool known = false;
    uint64_t id = 0;
    bool root = false;
};

std::atomic<bool> gNoMountIds{false};

MountPlace mountPlace(int fd) {
    MountPlace place;
    struct statx stx;
    if (gNoMountIds.load() || statx(fd, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_MNT_ID, &stx) != 0) {
        return place;
    }
    place.root =
        (stx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0 && (stx.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    if ((stx.stx_mask & STATX_MNT_ID) != 0) {
        place.known = true;
        place.id = stx.stx_mnt_id;
    }
    return place;
}

// One directory the walk is in or above. Only the innermost one is open.
struct Frame {
    std::string name;  // inside the frame above; empty for the start
    dev_t dev = 0;
    ino_t ino = 0;
    std::vector<std::string> pending;  // names still to visit, last one first
    bool removing = false;             // everything below goes, then the directory itself
    bool held = false;                 // something below stays (a mount, a failure)
    std::string path;                  // for directories entered by decision
};

class Walker {
public:
    Walker(const TreeRemoval::Rules& rules, std::string& error) : rules_(rules), error_(error) {}

    // Enters the directory `name` (of identity `st`) with `names` to visit.
    void push(const std::string& name, const struct stat& st, std::string path, bool removing,
              std::vector<std::string> names) {
        Frame frame;
        frame.name = name;
        frame.dev = st.st_dev;
        frame.ino = st.st_ino;
        frame.path = std::move(path);
        frame.removing = removing;
        std::reverse(names.begin(), names.end());
        frame.pending = std::move(names);
        frames_.push_back(std::move(frame));
    }

    // Starts in the open directory `rootFd` with `names` to visit.
    bool run(int rootFd, const std::string& rootPath, std::vector<std::string> names) {
        struct stat st;
        current_.reset(fcntl(rootFd, F_DUPFD_CLOEXEC, 0));
        if (!current_.valid() || fstat(current_.get(), &st) != 0) {
            return fatal(rootPath, "open");
        }
        rootDev_ = st.st_dev;
        rootMount_ = mountPlace(current_.get());
        push(std::string(), st, rootPath, false, std::move(names));
        while (!stopped_) {
            Frame& top = frames_.back();
            if (!top.pending.empty()) {
                const std::string name = std::move(top.pending.back());
                top.pending.pop_back();
                visit(name);
            } else if (frames_.size() == 1) {
                break;
            } else {
                leave();
            }
        }
        return ok_;
    }

private:
    void visit(const std::string& name) {
        struct stat st;
        if (fstatat(current_.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT) {
                fail(name, "stat");
            }
            return;
        }
        const TreeRemoval::Kind kind = kindOf(st);
        Frame& top = frames_.back();
        TreeRemoval::Decision decision = TreeRemoval::REMOVE;
        if (!top.removing) {
            const std::string path = childPath(top.path, name);
            decision = rules_.decide(TreeRemoval::Entry{current_.get(), name, path, kind});
        }
        if (decision == TreeRemoval::KEEP || (decision == TreeRemoval::ENTER && kind != TreeRemoval::DIRECTORY)) {
            return;
        }
        if (kind != TreeRemoval::DIRECTORY) {
            if (unlinkat(current_.get(), name.c_str(), 0) == 0 || errno == ENOENT) {
                return;
            }
            if (errno != EISDIR) {
                fail(name, "unlink");
                return;
            }
            // Replaced by a directory since the stat: remove that instead.
        }
        enter(name, decision == TreeRemoval::REMOVE);
    }

    void enter(const std::string& name, bool removing) {
        UniqueFd child(openat(current_.get(), name.c_str(), kOpenDirectoryFlags));
        if (!child.valid()) {
            // Swapped for a link (or anything else) since the stat: remove that instead.
            if (!(removing && (errno == ELOOP || errno == ENOTDIR) && unlinkat(current_.get(), name.c_str(), 0) == 0)) {
                fail(name, "open");
            }
            return;
        }
        struct stat st;
        if (fstat(child.get(), &st) != 0) {
            fail(name, "stat");
            return;
        }
        if (isOtherMount(child.get(), st)) {
            LOG(WARNING) << "TreeRemoval: " << shown(name)
                         << ": a mount point or another file system; not entered, left in place";
            frames_.back().held = true;
            return;
        }
        std::vector<std::string> names;
        if (!TreeRemoval::sList(child.get(), names)) {
            fail(name, "list");
            return;
        }
        push(name, st, removing ? std::string() : childPath(frames_.back().path, name), removing, std::move(names));
        current_ = std::move(child);
    }

    // Climbs back to the frame above, checking it is still the one walked
    // down from, and removes the finished directory when it was to go.
    void leave() {
        Frame done = std::move(frames_.back());
        frames_.pop_back();
        const Frame& above = frames_.back();
        UniqueFd parent(openat(current_.get(), "..", kOpenDirectoryFlags));
        struct stat st;
        if (!parent.valid() || fstat(parent.get(), &st) != 0 || st.st_dev != above.dev || st.st_ino != above.ino) {
            frames_.push_back(std::move(done));
            fatal(shown(""), "moved while it was walked; stopped");
            return;
        }
        current_ = std::move(parent);
        if (!done.removing) {
            return;
        }
        if (done.held) {
            frames_.back().held = true;
            return;
        }
        if (unlinkat(current_.get(), done.name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
            fail(done.name, "rmdir");
        }
    }

    bool isOtherMount(int fd, const struct stat& st) const {
        if (st.st_dev != rootDev_) {
            return true;
        }
        const MountPlace place = mountPlace(fd);
        return place.root || (place.known && rootMount_.known && place.id != rootMount_.id);
    }

    // The path of `name` in the innermost directory, shortened when very deep.
    std::string shown(const std::string& name) const {
        size_t first = frames_.size();
        while (first > 1 && frames_[first - 1].removing) {
            --first;
        }
        std::string text = frames_[first - 1].path;
        for (size_t i = first; i < frames_.size(); ++i) {
            text = childPath(text, frames_[i].name);
        }
        if (!name.empty()) {
            text = childPath(text, name);
        }
        if (text.size() > kShownPathLimit) {
            text = text.substr(0, kShownPathLimit / 4) + "/.../" + (name.empty() ? frames_.back().name : name) + " (" +
                   std::to_string(frames_.size() - first) + " levels below)";
        }
        return text;
    }

    void fail(const std::string& name, const char* what) {
        const std::string text = shown(name) + ": " + what + ": " + std::strerror(errno);
        frames_.back().held = true;
        if (rules_.failed && rules_.failed(text)) {
            return;
        }
        ok_ = false;
        stopped_ = true;
        error_ = text;
    }

    bool fatal(const std::string& path, const char* what) {
        error_ = path + ": " + what;
        ok_ = false;
        stopped_ = true;
        return false;
    }

    const TreeRemoval::Rules& rules_;
    std::string& error_;
    std::vector<Frame> frames_;
    UniqueFd current_;
    dev_t rootDev_ = 0;
    MountPlace rootMount_;
    bool ok_ = true;
    bool stopped_ = false;
};

}  // namespace

UniqueFd TreeRemoval::sOpenDirectory(const std::string& path) {
    if (path.empty()) {
        return UniqueFd();
    }
    // A trailing "/" would make O_NOFOLLOW follow a link in the last component.
    std::string plain = path;
    while (plain.size() > 1 && plain.back() == '/') {
        plain.pop_back();
    }
    return UniqueFd(open(plain.c_str(), kOpenDirectoryFlags));
}

UniqueFd TreeRemoval::sOpenAt(int dirFd, const std::string& name) {
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
        return UniqueFd();
    }
    return UniqueFd(openat(dirFd, name.c_str(), kOpenDirectoryFlags));
}

bool TreeRemoval::sList(int dirFd, std::vector<std::string>& names) {
    const int copy = fcntl(dirFd, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) {
        return false;
    }
    DIR* dir = fdopendir(copy);
    if (!dir) {
        close(copy);
        return false;
    }
    rewinddir(dir);
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(dir);
    return true;
}

TreeRemoval::Kind TreeRemoval::sKindAt(int dirFd, const std::string& name) {
    struct stat st;
    if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return MISSING;
    }
    return kindOf(st);
}

bool TreeRemoval::sWalk(int rootFd, const std::string& rootPath, const Rules& rules, std::string& error) {
    std::vector<std::string> names;
    if (!sList(rootFd, names)) {
        error = rootPath + ": list: " + std::strerror(errno);
        return false;
    }
    return Walker(rules, error).run(rootFd, rootPath, std::move(names));
}

bool TreeRemoval::sRemoveAt(int dirFd, const std::string& name, std::string& error) {
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
        error = "'" + name + "': not a name inside the directory";
        return false;
    }
    Rules rules;
    rules.decide = [](const Entry&) { return REMOVE; };
    return Walker(rules, error).run(dirFd, "", {name});
}

void TreeRemoval::sPretendNoMountIds(bool pretend) {
    gNoMountIds = pretend;
}

}  // namespace datacenter
