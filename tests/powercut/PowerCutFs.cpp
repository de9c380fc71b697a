// powercutfs: a pass-through FUSE file system that loses, when the power is
// cut, whatever was not synced, the way a disk with a write-back cache does.
//
//   powercutfs BACKING MOUNTPOINT STATEFILE
//
// Everything is passed through to BACKING. For every regular file written
// since its last fsync (or fdatasync) the content it held at that fsync is
// remembered (a file created since comes back empty; a file present at mount
// time counts as synced). Namespace operations (create, mkdir, rename, unlink,
// link, symlink, chmod) reach BACKING at once and are never lost, as in
// LazyFS. When the file system is unmounted, every such file is put back to
// its remembered content: unmounting is the power cut.
//
// STATEFILE is shared by every instance of a run (one per mounted folder):
//   uint64 points  fsync and fsyncdir calls seen so far, by all instances
//   uint64 cutAt   cut the power at this point (0: never); that call fails
//   uint64 cut     set once the power is cut: from then on every call fails
//                  with EIO, in every instance, as if the disk were gone
//   uint64 lose    0: keep unsynced data at unmount (setting up, recovery)
// Each point is also appended to STATEFILE.points as "N CALL MOUNTPOINT/PATH".
// A syncfs of the mount does not reach a FUSE file system (libfuse 3.14 has
// no such operation), so only fsync, fdatasync and fsyncdir count.
#define FUSE_USE_VERSION 31
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <fuse.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

namespace {

struct Shared {
    uint64_t points;
    uint64_t cutAt;
    uint64_t cut;
    uint64_t lose;
};

int gBacking = -1;
Shared* gShared = nullptr;
std::string gBackingPath;
std::string gMountPoint;
int gPointLog = -1;
// Inode -> the content the file held at its last fsync, for files written since.
std::map<ino_t, std::string> gLost;

std::string rel(const char* path) {
    return path[1] == '\0' ? std::string(".") : std::string(path + 1);
}

bool powerIsOff() {
    return __atomic_load_n(&gShared->cut, __ATOMIC_SEQ_CST) != 0;
}

int result(int value) {
    return value < 0 ? -errno : value;
}

#define POWER_CHECK()       \
    do {                    \
        if (powerIsOff()) { \
            return -EIO;    \
        }                   \
    } while (0)

std::string contentOf(int fd) {
    std::string content;
    char buffer[65536];
    for (ssize_t n; (n = pread(fd, buffer, sizeof buffer, static_cast<off_t>(content.size()))) > 0;) {
        content.append(buffer, static_cast<size_t>(n));
    }
    return content;
}

// Remembers the synced content of the regular file at `path` before its
// first change since its last fsync.
void rememberBeforeChange(const char* path) {
    struct stat st;
    if (fstatat(gBacking, rel(path).c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode) ||
        gLost.count(st.st_ino)) {
        return;
    }
    const int fd = openat(gBacking, rel(path).c_str(), O_RDONLY | O_NOFOLLOW);
    if (fd >= 0) {
        gLost[st.st_ino] = contentOf(fd);
        close(fd);
    }
}

// A durability point: false when the power goes at this one.
bool durabilityPoint(const char* call, const char* path) {
    const uint64_t point = __atomic_add_fetch(&gShared->points, 1, __ATOMIC_SEQ_CST);
    const std::string line = std::to_string(point) + " " + call + " " + gMountPoint + path + "\n";
    if (write(gPointLog, line.data(), line.size()) < 0) {
        std::perror("powercutfs: point log");
    }
    const uint64_t cutAt = __atomic_load_n(&gShared->cutAt, __ATOMIC_SEQ_CST);
    if (cutAt != 0 && point >= cutAt) {
        __atomic_store_n(&gShared->cut, 1, __ATOMIC_SEQ_CST);
        return false;
    }
    return true;
}

int pcGetattr(const char* path, struct stat* st, fuse_file_info* fi) {
    POWER_CHECK();
    if (fi) {
        return result(fstat(static_cast<int>(fi->fh), st));
    }
    return result(fstatat(gBacking, rel(path).c_str(), st, AT_SYMLINK_NOFOLLOW));
}

int pcAccess(const char* path, int mask) {
    POWER_CHECK();
    return result(faccessat(gBacking, rel(path).c_str(), mask, AT_SYMLINK_NOFOLLOW));
}

int pcReadlink(const char* path, char* buffer, size_t size) {
    POWER_CHECK();
    const ssize_t n = readlinkat(gBacking, rel(path).c_str(), buffer, size - 1);
    if (n < 0) {
        return -errno;
    }
    buffer[n] = '\0';
    return 0;
}

int pcMknod(const char* path, mode_t mode, dev_t dev) {
    POWER_CHECK();
    return result(mknodat(gBacking, rel(path).c_str(), mode, dev));
}

int pcMkdir(const char* path, mode_t mode) {
    POWER_CHECK();
    return result(mkdirat(gBacking, rel(path).c_str(), mode));
}

int pcUnlink(const char* path) {
    POWER_CHECK();
    return result(unlinkat(gBacking, rel(path).c_str(), 0));
}

int pcRmdir(const char* path) {
    POWER_CHECK();
    return result(unlinkat(gBacking, rel(path).c_str(), AT_REMOVEDIR));
}

int pcSymlink(const char* target, const char* path) {
    POWER_CHECK();
    return result(symlinkat(target, gBacking, rel(path).c_str()));
}

int pcRename(const char* from, const char* to, unsigned int flags) {
    POWER_CHECK();
    return result(renameat2(gBacking, rel(from).c_str(), gBacking, rel(to).c_str(), flags));
}

int pcLink(const char* from, const char* to) {
    POWER_CHECK();
    return result(linkat(gBacking, rel(from).c_str(), gBacking, rel(to).c_str(), 0));
}

int pcChmod(const char* path, mode_t mode, fuse_file_info* fi) {
    POWER_CHECK();
    if (fi) {
        return result(fchmod(static_cast<int>(fi->fh), mode));
    }
    return result(fchmodat(gBacking, rel(path).c_str(), mode, 0));
}

int pcChown(const char* path, uid_t uid, gid_t gid, fuse_file_info* fi) {
    POWER_CHECK();
    if (fi) {
        return result(fchown(static_cast<int>(fi->fh), uid, gid));
    }
    return result(fchownat(gBacking, rel(path).c_str(), uid, gid, AT_SYMLINK_NOFOLLOW));
}

int pcTruncate(const char* path, off_t size, fuse_file_info* fi) {
    POWER_CHECK();
    rememberBeforeChange(path);
    if (fi) {
        return result(ftruncate(static_cast<int>(fi->fh), size));
    }
    const int fd = openat(gBacking, rel(path).c_str(), O_WRONLY | O_NOFOLLOW);
    if (fd < 0) {
        return -errno;
    }
    const int done = result(ftruncate(fd, size));
    close(fd);
    return done;
}

int pcUtimens(const char* path, const timespec times[2], fuse_file_info* fi) {
    POWER_CHECK();
    if (fi) {
        return result(futimens(static_cast<int>(fi->fh), times));
    }
    return result(utimensat(gBacking, rel(path).c_str(), times, AT_SYMLINK_NOFOLLOW));
}

int pcOpen(const char* path, fuse_file_info* fi) {
    POWER_CHECK();
    if (fi->flags & O_TRUNC) {
        rememberBeforeChange(path);
    }
    const int fd = openat(gBacking, rel(path).c_str(), fi->flags & ~O_NOFOLLOW);
    if (fd < 0) {
        return -errno;
    }
    fi->fh = static_cast<uint64_t>(fd);
    return 0;
}

int pcCreate(const char* path, mode_t mode, fuse_file_info* fi) {
    POWER_CHECK();
    struct stat st;
    const bool existed = fstatat(gBacking, rel(path).c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (existed) {
        rememberBeforeChange(path);
    }
    const int fd = openat(gBacking, rel(path).c_str(), fi->flags, mode);
    if (fd < 0) {
        return -errno;
    }
    if (!existed && fstat(fd, &st) == 0) {
        gLost[st.st_ino] = std::string();  // never synced: comes back empty
    }
    fi->fh = static_cast<uint64_t>(fd);
    return 0;
}

int pcRead(const char*, char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    POWER_CHECK();
    return result(static_cast<int>(pread(static_cast<int>(fi->fh), buffer, size, offset)));
}

int pcWrite(const char* path, const char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    POWER_CHECK();
    rememberBeforeChange(path);
    return result(static_cast<int>(pwrite(static_cast<int>(fi->fh), buffer, size, offset)));
}

int pcStatfs(const char*, struct statvfs* st) {
    POWER_CHECK();
    return result(fstatvfs(gBacking, st));
}

int pcRelease(const char*, fuse_file_info* fi) {
    close(static_cast<int>(fi->fh));
    return 0;
}

int pcFsync(const char* path, int datasync, fuse_file_info* fi) {
    POWER_CHECK();
    if (!durabilityPoint(datasync ? "fdatasync" : "fsync", path)) {
        return -EIO;
    }
    struct stat st;
    if (fstat(static_cast<int>(fi->fh), &st) == 0) {
        gLost.erase(st.st_ino);
    }
    return 0;
}

int pcFsyncdir(const char* path, int, fuse_file_info*) {
    POWER_CHECK();
    return durabilityPoint("fsyncdir", path) ? 0 : -EIO;
}

int pcOpendir(const char* path, fuse_file_info* fi) {
    POWER_CHECK();
    const int fd = openat(gBacking, rel(path).c_str(), O_RDONLY | O_DIRECTORY);
    DIR* dir = fd < 0 ? nullptr : fdopendir(fd);
    if (!dir) {
        const int error = errno;
        if (fd >= 0) {
            close(fd);
        }
        return -error;
    }
    fi->fh = reinterpret_cast<uint64_t>(dir);
    return 0;
}

int pcReaddir(const char*, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info* fi, fuse_readdir_flags) {
    POWER_CHECK();
    DIR* dir = reinterpret_cast<DIR*>(fi->fh);
    rewinddir(dir);
    for (dirent* entry; (entry = readdir(dir)) != nullptr;) {
        struct stat st {};
        st.st_ino = entry->d_ino;
        st.st_mode = static_cast<mode_t>(DTTOIF(entry->d_type));
        if (fill(buffer, entry->d_name, &st, 0, static_cast<fuse_fill_dir_flags>(0))) {
            break;
        }
    }
    return 0;
}

int pcReleasedir(const char*, fuse_file_info* fi) {
    closedir(reinterpret_cast<DIR*>(fi->fh));
    return 0;
}

void* pcInit(fuse_conn_info*, fuse_config* config) {
    config->use_ino = 1;
    // The kernel asks again rather than trusting what it saw before a change.
    config->entry_timeout = 0;
    config->attr_timeout = 0;
    config->negative_timeout = 0;
    return nullptr;
}

// The power cut: every file written since its last fsync gets back what it
// held then, wherever it now lies.
int putBack(const char* path, const struct stat* st, int type, FTW*) {
    if (type != FTW_F || !S_ISREG(st->st_mode)) {
        return 0;
    }
    const auto lost = gLost.find(st->st_ino);
    if (lost == gLost.end()) {
        return 0;
    }
    FILE* file = std::fopen(path, "wb");
    if (file) {
        std::fwrite(lost->second.data(), 1, lost->second.size(), file);
        std::fclose(file);
    }
    gLost.erase(lost);
    return 0;
}

Shared* mapState(const char* path) {
    const int fd = open(path, O_RDWR);
    if (fd < 0 || ftruncate(fd, sizeof(Shared)) != 0) {
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return memory == MAP_FAILED ? nullptr : static_cast<Shared*>(memory);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: powercutfs BACKING MOUNTPOINT STATEFILE\n");
        return 2;
    }
    gBackingPath = argv[1];
    gBacking = open(argv[1], O_RDONLY | O_DIRECTORY);
    gMountPoint = argv[2];
    gShared = mapState(argv[3]);
    gPointLog = open((std::string(argv[3]) + ".points").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (gBacking < 0 || !gShared || gPointLog < 0) {
        std::fprintf(stderr, "powercutfs: cannot open %s or %s: %s\n", argv[1], argv[3], std::strerror(errno));
        return 1;
    }
    fuse_operations ops{};
    ops.getattr = pcGetattr;
    ops.access = pcAccess;
    ops.readlink = pcReadlink;
    ops.mknod = pcMknod;
    ops.mkdir = pcMkdir;
    ops.unlink = pcUnlink;
    ops.rmdir = pcRmdir;
    ops.symlink = pcSymlink;
    ops.rename = pcRename;
    ops.link = pcLink;
    ops.chmod = pcChmod;
    ops.chown = pcChown;
    ops.truncate = pcTruncate;
    ops.utimens = pcUtimens;
    ops.open = pcOpen;
    ops.create = pcCreate;
    ops.read = pcRead;
    ops.write = pcWrite;
    ops.statfs = pcStatfs;
    ops.release = pcRelease;
    ops.fsync = pcFsync;
    ops.fsyncdir = pcFsyncdir;
    ops.opendir = pcOpendir;
    ops.readdir = pcReaddir;
    ops.releasedir = pcReleasedir;
    ops.init = pcInit;
    // Foreground and single-threaded: the map of lost contents needs no lock.
    char program[] = "powercutfs", foreground[] = "-f", single[] = "-s", options[] = "-o",
         names[] = "fsname=powercutfs";
    char* fuseArgs[] = {program, foreground, single, options, names, argv[2], nullptr};
    const int status = fuse_main(6, fuseArgs, &ops, nullptr);
    if (__atomic_load_n(&gShared->lose, __ATOMIC_SEQ_CST) != 0) {
        nftw(gBackingPath.c_str(), putBack, 64, FTW_PHYS);
    }
    return status;
}
