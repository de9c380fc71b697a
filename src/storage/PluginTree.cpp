#include "storage/PluginTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "storage/UniqueFd.h"

namespace datacenter {
namespace {

// Splits a name already checked by sIsSafeName into its components.
std::vector<std::string> components(const std::string& relative) {
    std::vector<std::string> parts;
    std::string::size_type start = 0;
    while (start < relative.size()) {
        const std::string::size_type end = std::min(relative.find('/', start), relative.size());
        if (end > start) {
            parts.push_back(relative.substr(start, end - start));
        }
        start = end + 1;
    }
    return parts;
}

// Words for what `name` is when it could not be entered or opened as asked.
std::string describeEntry(int dirFd, const std::string& name, int err) {
    struct stat st;
    if (::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISLNK(st.st_mode)) {
            return "'" + name + "' is a symbolic link";
        }
        if (S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) || S_ISSOCK(st.st_mode)) {
            return "'" + name + "' is a special file";
        }
    }
    return "'" + name + "': " + std::strerror(err);
}

bool isWriting(int flags) {
    return (flags & O_ACCMODE) != O_RDONLY;
}

}  // namespace

PluginTree::PluginTree(const std::string& root) : root_(root) {
    std::string path = root;
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    if (path.empty()) {
        error_ = "no directory given";
        return;
    }
    rootFd_ = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (rootFd_ < 0) {
        error_ = root + ": " + std::strerror(errno);
    }
}

PluginTree::~PluginTree() {
    if (rootFd_ >= 0) {
        ::close(rootFd_);
    }
}

bool PluginTree::sIsSafeName(const std::string& relative) {
    if (relative.empty() || relative[0] == '/') {
        return false;
    }
    for (const char c : relative) {
        if (c == '\\' || static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            return false;
        }
    }
    const std::vector<std::string> parts = components(relative);
    // An empty component in the middle ("a//b") would be a second spelling of the same name.
    if (parts.empty() || relative.find("//") != std::string::npos) {
        return false;
    }
    for (const std::string& part : parts) {
        if (part == "." || part == "..") {
            return false;
        }
    }
    return true;
}

bool PluginTree::fail(const std::string& what, int err) {
    error_ = what;
    errno = err;
    return false;
}

int PluginTree::openDirectory(const std::string& relative, bool create, mode_t mode) {
    error_.clear();
    if (rootFd_ < 0 || (!relative.empty() && !sIsSafeName(relative))) {
        fail(rootFd_ < 0 ? "plugin directory not open" : "unsafe name '" + relative + "'", EINVAL);
        return -1;
    }
    UniqueFd current(::fcntl(rootFd_, F_DUPFD_CLOEXEC, 0));
    for (const std::string& part : components(relative)) {
        const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        int next = ::openat(current.get(), part.c_str(), flags);
        if (next < 0 && errno == ENOENT && create) {
            if (::mkdirat(current.get(), part.c_str(), mode) != 0 && errno != EEXIST) {
                fail("cannot create '" + part + "': " + std::strerror(errno), errno);
                return -1;
            }
            next = ::openat(current.get(), part.c_str(), flags);
            // The umask took bits away when the folder was made: give them back on what was opened.
            if (next >= 0) {
                ::fchmod(next, mode);
            }
        }
        if (next < 0) {
            const int err = errno;
            fail(describeEntry(current.get(), part, err), err);
            return -1;
        }
        current.reset(next);
    }
    return current.release();
}

int PluginTree::openParent(const std::string& relative, bool create, mode_t mode, std::string& leaf) {
    if (!sIsSafeName(relative) || relative.back() == '/') {
        fail("unsafe name '" + relative + "'", EINVAL);
        return -1;
    }
    const std::string::size_type slash = relative.rfind('/');
    leaf = slash == std::string::npos ? relative : relative.substr(slash + 1);
    return openDirectory(slash == std::string::npos ? std::string() : relative.substr(0, slash), create, mode);
}

int PluginTree::openFile(const std::string& relative, int flags, mode_t mode) {
    error_.clear();
    std::string leaf;
    UniqueFd parent(openParent(relative, false, 0, leaf));
    if (parent.get() < 0) {
        return -1;
    }
    return openLeaf(parent.get(), leaf, relative, flags, mode);
}

int PluginTree::openFileIn(int directoryFd, const std::string& leaf, int flags, mode_t mode) {
    error_.clear();
    if (leaf.find('/') != std::string::npos || !sIsSafeName(leaf)) {
        fail("unsafe name '" + leaf + "'", EINVAL);
        return -1;
    }
    return openLeaf(directoryFd, leaf, leaf, flags, mode);
}

int PluginTree::openLeaf(int directoryFd, const std::string& leaf, const std::string& shown, int flags, mode_t mode) {
    // Truncation waits until the file is known to be ours alone.
    const int openFlags = (flags & ~O_TRUNC) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd file(::openat(directoryFd, leaf.c_str(), openFlags, mode));
    if (file.get() < 0) {
        const int err = errno;
        fail(describeEntry(directoryFd, leaf, err), err);
        return -1;
    }
    struct stat st;
    if (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        fail("'" + shown + "' is not a regular file", EINVAL);
        return -1;
    }
    if (isWriting(flags) && st.st_nlink > 1) {
        // Another name of this file may lie outside the tree: write a new file instead.
        file.reset();
        if (::unlinkat(directoryFd, leaf.c_str(), 0) != 0) {
            fail("cannot replace '" + shown + "': " + std::strerror(errno), errno);
            return -1;
        }
        file.reset(::openat(directoryFd, leaf.c_str(), openFlags | O_CREAT | O_EXCL, mode));
        if (file.get() < 0) {
            fail("cannot create '" + shown + "': " + std::strerror(errno), errno);
            return -1;
        }
    } else if ((flags & O_TRUNC) && isWriting(flags) && st.st_size > 0 && ::ftruncate(file.get(), 0) != 0) {
        fail("cannot truncate '" + shown + "': " + std::strerror(errno), errno);
        return -1;
    }
    // The status flags that F_SETFL changes are all known from the open.
    ::fcntl(file.get(), F_SETFL, openFlags & ~O_NONBLOCK);
    return file.release();
}

bool PluginTree::chmod(const std::string& relative, mode_t mode) {
    error_.clear();
    std::string leaf;
    UniqueFd parent(openParent(relative, false, 0, leaf));
    if (parent.get() < 0) {
        return false;
    }
    struct stat st;
    if (::fstatat(parent.get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return fail("'" + relative + "': " + std::strerror(errno), errno);
    }
    if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) {
        return fail(describeEntry(parent.get(), leaf, EINVAL), EINVAL);
    }
    if (S_ISREG(st.st_mode) && st.st_nlink > 1) {
        return fail("'" + relative + "' has another name (a hard link); its mode is left alone", EPERM);
    }
    UniqueFd entry(::openat(parent.get(), leaf.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat opened;
    // The entry may have been swapped between the look and the open: only the one looked at is changed.
    if (entry.get() < 0 || ::fstat(entry.get(), &opened) != 0 || opened.st_ino != st.st_ino ||
        opened.st_dev != st.st_dev || (S_ISREG(opened.st_mode) && opened.st_nlink > 1)) {
        return fail("'" + relative + "' changed while it was opened", EAGAIN);
    }
    if (::fchmod(entry.get(), mode) != 0) {
        return fail("cannot change the mode of '" + relative + "': " + std::strerror(errno), errno);
    }
    return true;
}

bool PluginTree::rename(const std::string& from, const std::string& to) {
    error_.clear();
    std::string fromLeaf;
    std::string toLeaf;
    UniqueFd fromDir(openParent(from, false, 0, fromLeaf));
    if (fromDir.get() < 0) {
        return false;
    }
    UniqueFd toDir(openParent(to, false, 0, toLeaf));
    if (toDir.get() < 0) {
        return false;
    }
    if (::renameat(fromDir.get(), fromLeaf.c_str(), toDir.get(), toLeaf.c_str()) != 0) {
        const int err = errno;
        return fail("cannot rename '" + from + "' to '" + to + "': " + std::strerror(err), err);
    }
    return true;
}

bool PluginTree::remove(const std::string& relative) {
    error_.clear();
    std::string leaf;
    UniqueFd parent(openParent(relative, false, 0, leaf));
    if (parent.get() < 0) {
        return errno == ENOENT;
    }
    if (::unlinkat(parent.get(), leaf.c_str(), 0) == 0 || errno == ENOENT) {
        return true;
    }
    if ((errno == EISDIR || errno == EPERM) && ::unlinkat(parent.get(), leaf.c_str(), AT_REMOVEDIR) == 0) {
        return true;
    }
    return fail("cannot remove '" + relative + "': " + std::strerror(errno), errno);
}

bool PluginTree::isLink(const std::string& relative) {
    std::string leaf;
    UniqueFd parent(openParent(relative, false, 0, leaf));
    struct stat st;
    return parent.get() >= 0 && ::fstatat(parent.get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISLNK(st.st_mode);
}

std::string PluginTree::sPinnedPath(int directoryFd, const std::string& leaf) {
    return "/proc/self/fd/" + std::to_string(directoryFd) + "/" + leaf;
}

}  // namespace datacenter
