#pragma once
// Plugin ids end up in paths and shell command lines, so an id that comes
// from outside (a package, a caller) must be a plain token. A plugin's
// folder sits beside the core's own entries in the plugin root, so an id may
// also never name one of those: a package calling itself "app_infos" would
// unpack into the manifest store.
#include <string>

namespace datacenter {

// Why `id` cannot be a plugin id, or an empty text when it can: 1 to 64
// characters of letters, digits, "_", "-" and ".", not starting with "."
// (hidden names are the core's), and none of the core's own entry names in
// any letter case (a FAT user disk does not tell cases apart).
inline std::string pluginIdProblem(const std::string& id) {
    if (id.empty() || id.size() > 64) {
        return "a plugin id has 1 to 64 characters";
    }
    if (id[0] == '.') {
        return "a plugin id does not start with \".\"";
    }
    std::string lower;
    for (const char c : id) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                           c == '-' || c == '.';
        if (!plain) {
            return "a plugin id holds only letters, digits, \"_\", \"-\" and \".\"";
        }
        lower += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    // The entries the core keeps in the plugin root ("/userdisk/appdata/").
    for (const char* reserved :
         {"app_infos", "local_install_tmp", "app_package", "plugin_id_info.cfg", "urlinstall.qpk"}) {
        if (lower == reserved) {
            return "\"" + id + "\" names one of the core's own entries";
        }
    }
    return std::string();
}

// True when `id` can be a plugin id (see pluginIdProblem).
inline bool isSafePluginId(const std::string& id) {
    return pluginIdProblem(id).empty();
}

}  // namespace datacenter
