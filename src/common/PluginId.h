#pragma once
// Plugin ids end up in paths and shell command lines, so an id that comes
// from outside (a package, a caller) must be a plain token.
#include <string>

namespace datacenter {

// True for 1 to 64 characters of letters, digits, "_", "-" and ".", other than "." and "..".
inline bool isSafePluginId(const std::string& id) {
    if (id.empty() || id.size() > 64 || id == "." || id == "..") {
        return false;
    }
    for (const char c : id) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                           c == '-' || c == '.';
        if (!plain) {
            return false;
        }
    }
    return true;
}

}  // namespace datacenter
