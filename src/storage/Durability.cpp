#include "storage/Durability.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "storage/UniqueFd.h"
#include "system/Environment.h"

namespace datacenter {

Durability::Mode Durability::sMode() {
    static const Mode mode = Environment::sGet("DATACENTER_DURABILITY") == "fsync" ? FSYNC : SYNCFS;
    return mode;
}

bool Durability::sFileWritten(int fd) {
    return sMode() != FSYNC || ::fsync(fd) == 0;
}

bool Durability::sFolderChanged(int dirFd) {
    return sMode() != FSYNC || ::fsync(dirFd) == 0;
}

bool Durability::sCommit(int dirFd) {
    const bool ok = sMode() == SYNCFS ? ::syncfs(dirFd) == 0 : ::fsync(dirFd) == 0;
    if (!ok) {
        LOG(ERROR) << "cannot bring the written files to disk: " << strerror(errno);
    }
    return ok;
}

bool Durability::sCommitPath(const char* path) {
    const UniqueFd folder(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.valid() && sCommit(folder.get());
}

}  // namespace datacenter
