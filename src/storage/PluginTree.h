#pragma once
// Writes into a plugin's directory without following anything the plugin
// planted there. Plugin directories are world-writable and plugins run inside
// them, so any entry may have become a symbolic link, a FIFO or a hard link to
// a file elsewhere since the last look; the core runs as root.
//
// The directory is opened once; every later operation walks from that
// descriptor one component at a time (openat/mkdirat with O_NOFOLLOW) and
// refuses when a component is a link or not a directory, so nothing below
// ever resolves outside the tree. Permission changes go to the descriptor
// that was opened (fchmod), never to a path.
#include <sys/types.h>

#include <string>

namespace datacenter {

class PluginTree {
public:
    // Opens `root` (which must be a directory and not a link); isOpen() tells.
    explicit PluginTree(const std::string& root);
    ~PluginTree();
    PluginTree(const PluginTree&) = delete;
    PluginTree& operator=(const PluginTree&) = delete;

    bool isOpen() const { return rootFd_ >= 0; }
    const std::string& root() const { return root_; }
    // Why the last operation failed, in words ("" after a success).
    const std::string& lastError() const { return error_; }

    // True for a relative name that stays below the root: not empty, not
    // absolute, no "." or ".." component, no empty component except a
    // trailing "/", no backslash and no control character.
    static bool sIsSafeName(const std::string& relative);

    // Opens the directory `relative` ("" for the root itself), creating
    // missing components with permission bits `mode` when `create` is set.
    // Returns a descriptor the caller closes, or -1 (lastError() says why).
    int openDirectory(const std::string& relative, bool create, mode_t mode);
    // Opens the regular file `relative` with `flags` (O_WRONLY, O_RDWR,
    // O_CREAT, O_APPEND, O_TRUNC...), creating it with `mode`. The parent
    // directories must exist. Refuses links, FIFOs and devices; a file with
    // more than one hard link is replaced by a new one when opened for writing,
    // so writing never reaches a file outside. Returns a descriptor or -1.
    int openFile(const std::string& relative, int flags, mode_t mode);
    // The same for the entry `leaf` (one component) of a directory of this
    // tree that the caller holds open (from openDirectory), so that many
    // files of one directory need not each walk from the root again.
    int openFileIn(int directoryFd, const std::string& leaf, int flags, mode_t mode);
    // Sets the permission bits of the file or directory `relative` through a
    // descriptor of it; false when it is missing, a link or special file, or
    // a file with another name (a hard link, which may lie outside).
    bool chmod(const std::string& relative, mode_t mode);
    // Renames `from` to `to`, both below the root; a link at `to` is
    // replaced, never followed. On failure errno keeps the system's reason.
    bool rename(const std::string& from, const std::string& to);
    // Removes the file or empty directory `relative` (a link is removed
    // itself). True when it is gone afterwards.
    bool remove(const std::string& relative);
    // True when `relative` exists as a symbolic link (parents are walked safely).
    bool isLink(const std::string& relative);

    // A path for code that takes path names: the entry `leaf` of the folder
    // open as `directoryFd`, reached through the process's own descriptor
    // ("/proc/self/fd/N/leaf"), so the folder is the one that was checked
    // whatever its names lead to by then. Valid while the descriptor is open.
    static std::string sPinnedPath(int directoryFd, const std::string& leaf);
    // The same for an entry of the root folder.
    std::string pinnedPath(const std::string& leaf) const { return sPinnedPath(rootFd_, leaf); }

private:
    // The directory holding the last component of `relative`, and that component.
    int openParent(const std::string& relative, bool create, mode_t mode, std::string& leaf);
    // Opens `leaf` of the directory `directoryFd`; messages call it `shown`.
    int openLeaf(int directoryFd, const std::string& leaf, const std::string& shown, int flags, mode_t mode);
    bool fail(const std::string& what, int err);

    std::string root_;
    int rootFd_ = -1;
    std::string error_;
};

}  // namespace datacenter
