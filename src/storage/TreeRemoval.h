#pragma once
// Removal inside trees that someone else may write to at the same time (a
// plugin's directory, which the plugin itself can change). Every step works
// relative to an open directory descriptor and never follows a symbolic link:
// a link met on the way is removed as a link, so no walk can be led outside
// the directory it started in.
#include <string>
#include <vector>

#include "storage/UniqueFd.h"

namespace datacenter {

class TreeRemoval {
public:
    enum Kind { MISSING, LINK, DIRECTORY, REGULAR, OTHER };

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
    // Removes `name` inside `dirFd` with everything below it; a link is
    // removed as a link. True when nothing is left; on failure `error`
    // names the entry and the reason.
    static bool sRemoveAt(int dirFd, const std::string& name, std::string& error);
};

}  // namespace datacenter
