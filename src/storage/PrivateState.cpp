#include "storage/PrivateState.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "storage/UniqueFd.h"
#include "system/RootPrefix.h"

namespace datacenter {
namespace {

const char* const kParentDir = "/data/etc/datacenter/";
const char* const kStateName = "state";
// What older versions kept directly in the parent folder.
const char* const kFormerFiles[] = {"install.journal", "firmware.facts", "recheck.disabled"};

// Opens (creating when missing, mode `mode`) the folder `name` in `parent`
// without following a link. Invalid when it cannot be opened as a folder.
UniqueFd openOrMakeFolder(int parent, const std::string& name, mode_t mode) {
    UniqueFd fd(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid() && errno == ENOENT && ::mkdirat(parent, name.c_str(), mode) == 0) {
        fd.reset(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    return fd;
}

// The parent folder, walked from the root one component at a time.
UniqueFd openParent() {
    const std::string root = RootPrefix::sRoot();
    UniqueFd dir(::open(root.empty() ? "/" : root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::string parts = std::string(kParentDir).substr(1);
    for (std::string::size_type start = 0; dir.valid() && start < parts.size();) {
        const std::string::size_type slash = parts.find('/', start);
        dir = openOrMakeFolder(dir.get(), parts.substr(start, slash - start), 0755);
        start = slash + 1;
    }
    return dir;
}

// Moves the state an older version left in the parent into `state`, when
// the parent is the core's own (nobody else could have written it) and the
// state folder has none of its own yet.
void adoptFormerFiles(int parent, int state) {
    struct stat folder;
    if (::fstat(parent, &folder) != 0 || folder.st_uid != ::geteuid() || (folder.st_mode & 022) != 0) {
        return;
    }
    bool moved = false;
    for (const char* name : kFormerFiles) {
        struct stat st;
        if (::fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
            ::fstatat(state, name, &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT &&
            ::renameat(parent, name, state, name) == 0) {
            LOG(INFO) << "moved " << name << " of an older version into " << PrivateState::sDir();
            moved = true;
        }
    }
    if (moved) {
        ::fsync(state);
        ::fsync(parent);
    }
}

}  // namespace

std::string PrivateState::sDir() {
    return RootPrefix::sPath(std::string(kParentDir) + kStateName + "/");
}

std::string PrivateState::sPath(const std::string& name) {
    return sDir() + name;
}

bool PrivateState::sEnsure() {
    const UniqueFd parent = openParent();
    const UniqueFd state = parent.valid() ? openOrMakeFolder(parent.get(), kStateName, 0700) : UniqueFd();
    const int err = errno;
    struct stat st;
    if (!state.valid() || ::fstat(state.get(), &st) != 0 || st.st_uid != ::geteuid() ||
        ((st.st_mode & 07777) != 0700 && ::fchmod(state.get(), 0700) != 0)) {
        LOG(ERROR) << "the core's private folder " << sDir() << " cannot be used ("
                   << (state.valid() ? "it belongs to another user" : strerror(err))
                   << "): a link, a file or a folder of another owner is in its way";
        return false;
    }
    adoptFormerFiles(parent.get(), state.get());
    return true;
}

}  // namespace datacenter
