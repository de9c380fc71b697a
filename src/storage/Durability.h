#pragma once
// What an operation reports done is on disk: a router loses power far more
// often than it crashes, and a power cut loses what was only in the page
// cache. Two ways to get there, chosen once per process:
//   SYNCFS (the default): files are written without a flush each, and one
//     syncfs() of the file system at the commit point writes back every
//     dirty file and folder at once: one cache flush of the disk, however
//     many files a package has.
//   FSYNC: each file is flushed (fsync) before it is closed and each folder
//     that got new entries is flushed after them; the commit point flushes
//     its folder. More flushes, but each one is visible to a file system in
//     user space (FUSE has no syncfs), which is how the power-cut tests see
//     them. DATACENTER_DURABILITY=fsync selects it.
// docs/reliability.md compares the two.
namespace datacenter {

class Durability {
public:
    enum Mode { SYNCFS, FSYNC };
    static Mode sMode();
    // A file an operation wrote, about to be closed: flushed in FSYNC mode.
    static bool sFileWritten(int fd);
    // A folder whose entries an operation changed: flushed in FSYNC mode.
    static bool sFolderChanged(int dirFd);
    // The commit point of an operation whose writes lie in the file system
    // of the open folder `dirFd`: everything written there is on disk when
    // this returns true (SYNCFS: syncfs of it; FSYNC: the folder itself,
    // its files having been flushed as they were written).
    static bool sCommit(int dirFd);
    // The same for a folder given by path.
    static bool sCommitPath(const char* path);
};

}  // namespace datacenter
