// The manifest store reading one manifest file from its directory into a
// PluginInfo, through the listing every caller uses. A manifest is written by
// a plugin's package, so any text may be in it; the listing must not
// crash nor throw anything (a number that does not convert leaves that record
// out), and a record it lists carries a safe plugin id.
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <fstream>

#include "DataBase/PluginStorageManager.h"
#include "FuzzSupport.h"
#include "common/PluginId.h"
#include "common/Singleton.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::root();
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    PluginStorageManager* store = Singleton<PluginStorageManager>::instance();
    const std::string directory = PluginStorageManager::sGetManifestRootPath();
    const std::string manifest = directory + "5017400000000000100.manifest";
    fuzzsupport::writeInput(manifest, data, size);
    // The mark file makes the store read its directory again, whatever the clock says.
    std::ofstream(directory + PluginStorageManager::sUpdatedFile).put('\n');

    try {
        for (const auto& entry : store->getPluginInfos()) {
            if (entry.first != entry.second.id || !datacenter::isSafePluginId(entry.first)) {
                fuzzsupport::fail("listed a record under an unsafe or mismatched id: " + entry.first);
            }
        }
    } catch (const std::exception& e) {
        fuzzsupport::fail(std::string("the listing threw: ") + e.what());
    } catch (...) {
        fuzzsupport::fail("the listing threw something that is not a std::exception");
    }
    unlink(manifest.c_str());
    return 0;
}
