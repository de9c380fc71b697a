#pragma once
// Where the manifest store of the test root lies, and the store itself.
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

}  // namespace testsupport
