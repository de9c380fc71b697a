#pragma once
// The one central object of the plugin core, reached through
// Singleton<PluginManager>::instance().
#include <string>

#include "common/ApiErrorCode.h"

class PluginManager {
public:
    PluginManager();
    virtual ~PluginManager();

    // Installs the package file at `path` on the calling thread. `keepPackage`
    // false deletes the file after its signature check and clean-up.
    // Returns 0, 2 for an empty path, 2503 when the file does not exist.
    ApiErrorCode installFromLocal(const std::string& path, bool keepPackage);
};
