#pragma once
// Walks and removals inside trees that someone else may write to at the same
// time (a plugin's directory, which the plugin itself can change). Every step
// works relative to an open directory descriptor and never follows a
// symbolic link: a link met on the way is removed as a link, so no walk can
// be led outside the directory it started in.
//
// The walk is iterative: it holds the descriptor of the directory it is in
// and, for each level above, only the directory's name, device and inode. It
// climbs back through ".." and checks that it arrives where it came from; a
// tree moved during the walk stops it with an error. Depth is therefore
// limited neither by the descriptor limit nor by the stack. A directory on
// another file system, or the root of any mount (bind mounts of the same
// device included), is never entered nor removed: it is left in place with a
// log line, and the directories holding it stay too.
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "storage/UniqueFd.h"

namespace datacenter {

class TreeRemoval {
public:
    enum Kind { MISSING, LINK, DIRECTORY, REGULAR, OTHER };
    // What a walk does with one entry: leave it as it is, walk into it (a
    // directory; anything else is left), or remove it with all its content.
    enum Decision { KEEP, ENTER, REMOVE };

    // One entry met by a walk: its name inside the open directory `dirFd`,
    // and its path, made of the start path and the names walked into.
    struct Entry {
        int dirFd;
        const std::string& name;
        const std::string& path;
        Kind kind;
    };

    struct Rules {
        // Decides for every entry of a directory the walk entered.
        std::function<Decision(const Entry& entry)> decide;
        // Hears each failure; returning true goes on with the next entry.
        // Without it the first failure ends the walk.
        std::function<bool(const std::string& error)> failed;
    };

    // Opens the directory at `path`; invalid when it is missing, not a
    // directory, or a symbolic link itself.
    static UniqueFd sOpenDirectory(const std::string& path);
    // Opens the directory `name` (one component) inside `dirFd` without
    // following a link; invalid otherwise.
    static UniqueFd sOpenAt(int dirFd, const std::string& name);
    // The entry names of the open directory (without "." and ".."), in the
    // order the directory lists them; false when it cannot be read.
    static bool sList(int dirFd, std::vector<std::string>& names);
    // What `name` inside `dirFd` is, without following a link. `name` may be
    // a whole path when `dirFd` is AT_FDCWD.
    static Kind sKindAt(int dirFd, const std::string& name);

    // Walks the open directory `rootFd`, whose path is `rootPath`, applying
    // `rules` to every entry of each directory entered (the root itself is
    // always entered and never removed). False when a failure ended the walk;
    // `error` then names the entry and the reason.
    static bool sWalk(int rootFd, const std::string& rootPath, const Rules& rules, std::string& error);
    // Removes `name` inside `dirFd` with everything below it; a link is
    // removed as a link. True when it is gone, or when all that is left is
    // held by a mount below it; on failure `error` names the entry and the
    // reason.
    static bool sRemoveAt(int dirFd, const std::string& name, std::string& error);

    // For tests: walk as on a kernel whose statx() reports no mount ids
    // (before Linux 5.8), where only the device number tells a mount.
    static void sPretendNoMountIds(bool pretend);
};

}  // namespace datacenter
