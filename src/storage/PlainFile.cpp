#include "storage/PlainFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "storage/UniqueFd.h"

namespace datacenter {

namespace {

bool refuse(const char* reason, std::string& why) {
    why = reason;
    return false;
}

bool refuseErrno(const char* what, std::string& why) {
    why = std::string(what) + ": " + std::strerror(errno);
    return false;
}

}  // namespace

bool PlainFile::sReadAt(int dirFd, const std::string& name, size_t limit, std::string& text, std::string& why) {
    text.clear();
    if (name.empty() || name.find('/') != std::string::npos) {
        return refuse("not a name inside the directory", why);
    }
    const UniqueFd fd(openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd.valid()) {
        return refuseErrno("open", why);
    }
    struct stat st;
    if (fstat(fd.get(), &st) != 0) {
        return refuseErrno("stat", why);
    }
    if (!S_ISREG(st.st_mode)) {
        return refuse("not a regular file", why);
    }
    if (st.st_nlink != 1) {
        return refuse("a file with more than one link", why);
    }
    if (static_cast<unsigned long long>(st.st_size) > limit) {
        return refuse("larger than the limit", why);
    }
    // The size may still grow while it is read: one byte past the limit tells.
    char buffer[65536];
    for (;;) {
        const ssize_t got = read(fd.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return refuseErrno("read", why);
        }
        if (got == 0) {
            return true;
        }
        text.append(buffer, static_cast<size_t>(got));
        if (text.size() > limit) {
            text.clear();
            return refuse("larger than the limit", why);
        }
    }
}

bool PlainFile::sRead(const std::string& path, size_t limit, std::string& text, std::string& why) {
    std::string leaf;
    const UniqueFd dirFd = openParentFolder(path, leaf);
    if (!dirFd.valid()) {
        text.clear();
        return refuseErrno("open folder", why);
    }
    return sReadAt(dirFd.get(), leaf, limit, text, why);
}

}  // namespace datacenter
