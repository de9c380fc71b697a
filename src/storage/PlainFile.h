#pragma once
// Reading a file that someone else controls, such as a plugin's own record of
// its files: relative to a directory descriptor, without following a link,
// without blocking, and never more than a stated size. A FIFO, a device (say
// /dev/zero), a hard link to a file elsewhere or an oversized file is refused
// instead of read.
#include <cstddef>
#include <string>

namespace datacenter {

class PlainFile {
public:
    // Reads the regular file `name` (one component) of the open directory
    // `dirFd` into `text`. False, with the reason in `why`, when it is
    // missing, a link, not a regular file, has more than one link, or holds
    // more than `limit` bytes.
    static bool sReadAt(int dirFd, const std::string& name, size_t limit, std::string& text, std::string& why);
    // The same for `path`: its folder is opened as named, its last component
    // is read as above.
    static bool sRead(const std::string& path, size_t limit, std::string& text, std::string& why);
};

}  // namespace datacenter
