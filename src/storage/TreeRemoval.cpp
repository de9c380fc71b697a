#include "storage/TreeRemoval.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace datacenter {

namespace {

const int kOpenDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;

bool removeEntries(int dirFd, const std::string& shownPath, std::string& error);

bool fail(const std::string& path, const char* what, std::string& error) {
    error = path + ": " + what + ": " + std::strerror(errno);
    return false;
}

// Removes `name` inside `dirFd`; `shownPath` only names it in error texts.
bool removeOne(int dirFd, const std::string& name, const std::string& shownPath, std::string& error) {
    struct stat st;
    if (fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? true : fail(shownPath, "stat", error);
    }
    if (!S_ISDIR(st.st_mode)) {
        if (unlinkat(dirFd, name.c_str(), 0) != 0 && errno != ENOENT) {
            return fail(shownPath, "unlink", error);
        }
        return true;
    }
    UniqueFd child(openat(dirFd, name.c_str(), kOpenDirectoryFlags));
    if (!child.valid()) {
        // Swapped for a link (or anything else) since the stat: remove that instead.
        if ((errno == ELOOP || errno == ENOTDIR) && unlinkat(dirFd, name.c_str(), 0) == 0) {
            return true;
        }
        return fail(shownPath, "open", error);
    }
    if (!removeEntries(child.get(), shownPath, error)) {
        return false;
    }
    if (unlinkat(dirFd, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        return fail(shownPath, "rmdir", error);
    }
    return true;
}

bool removeEntries(int dirFd, const std::string& shownPath, std::string& error) {
    std::vector<std::string> names;
    if (!TreeRemoval::sList(dirFd, names)) {
        return fail(shownPath, "list", error);
    }
    for (const std::string& name : names) {
        if (!removeOne(dirFd, name, shownPath + "/" + name, error)) {
            return false;
        }
    }
    return true;
}

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
    if (S_ISLNK(st.st_mode)) {
        return LINK;
    }
    if (S_ISDIR(st.st_mode)) {
        return DIRECTORY;
    }
    return S_ISREG(st.st_mode) ? REGULAR : OTHER;
}

bool TreeRemoval::sRemoveAt(int dirFd, const std::string& name, std::string& error) {
    return removeOne(dirFd, name, name, error);
}

}  // namespace datacenter
