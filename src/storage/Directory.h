#pragma once
// Stateless directory operations: creation (recursive, mode 0777), removal,
// recursive copy with the duplicate-name rule, and listing.
#include <sys/types.h>

#include <string>
#include <vector>

#include "common/ErrorCode.h"

namespace datacenter {

class Directory {
public:
    static bool sExists(const std::string& path);
    static bool sIsDirectory(const std::string& path);
    // Creates the directory with all missing parents and sets its mode to 0777.
    static ErrorCode sCreateDirectory(const std::string& path);
    // Creates each component of `path` with `mode`, owned by the plugin user.
    // Returns 0, or -1 when a component could not be created.
    static int make_dir(char* path, mode_t mode);
    // Removes a file or directory; with `recursive` the whole tree. Refuses
    // the empty path and the root itself.
    static ErrorCode sDelete(const std::string& path, bool recursive);
    // Copies the tree below `source` into `target`; files whose name is taken
    // get a free duplicate name.
    static ErrorCode sCopyDirectory(const std::string& source, const std::string& target);
    // Full paths of the visible (not dot-named) files and directories of `path`.
    static std::vector<std::string> sListEntries(const std::string& path);

    // Owner given to the directories made by make_dir: the plugin user.
    static void sSetPluginOwner(uid_t uid, gid_t gid);
};

}  // namespace datacenter
