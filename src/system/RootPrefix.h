#pragma once
// Every fixed absolute path of the system goes through sPath(), which puts the
// root prefix in front of it. The prefix comes from DATACENTER_ROOT, read once
// per process; it is empty on a router, so paths there are exactly the
// documented ones. Kernel interfaces (/proc, /dev, /sys) are never prefixed.
#include <string>

namespace datacenter {

class RootPrefix {
public:
    // The prefix without a trailing slash; empty on a router.
    static const std::string& sRoot();

    // The prefixed form of a fixed absolute path. An empty path stays empty
    // and a relative path is returned as given, so the prefix can never turn
    // "no path" into the root directory itself.
    static std::string sPath(const std::string& absolutePath);

    // True when `path` names the root prefix directory itself (or "/"): such a
    // path must never be created, chmod-ed or removed by a plugin operation.
    static bool sIsRootItself(const std::string& path);
};

}  // namespace datacenter
