#pragma once
// Where the manifest store of the test root lies, the store itself, and
// manifests written into it.
#include <fcntl.h>
#include <sys/stat.h>

#include <ctime>
#include <string>

#include "DataBase/PluginStorageManager.h"
#include "common/Singleton.h"
#include "support/TestSupport.h"

namespace testsupport {

inline std::string storeDir() {
    return underRoot("/userdisk/appdata//app_infos/");
}

inline PluginStorageManager* store() {
    return Singleton<PluginStorageManager>::instance();
}

inline void writeManifest(const std::string& fileName, const std::string& body) {
    writeFile(storeDir() + fileName, body);
}

inline std::string simpleManifest(const std::string& id, const std::string& name) {
    return "plugin_id = \"" + id + "\";\nname = \"" + name + "\";\nversion = \"1.0.0\";\n";
}

// Sets both time stamps of `path` to `seconds`; by default well into the
// past, as for a store that has not changed for a while.
inline void settle(const std::string& path, time_t seconds = time(nullptr) - 60) {
    const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
}

inline time_t modifiedAt(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mtime : 0;
}

}  // namespace testsupport
