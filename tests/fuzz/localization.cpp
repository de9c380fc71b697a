// The localisation file parser: "key###value" lines of any length and bytes.
#include <cstdint>
#include <map>
#include <string>

#include "FuzzSupport.h"
#include "system/LocalizationHelper.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzzsupport::underRoot("/language.txt");
    fuzzsupport::writeInput(path, data, size);
    std::map<std::string, std::string> entries;
    datacenter::LocalizationHelper::parseFile(entries, path);
    for (const auto& entry : entries) {
        if (entry.first.find('#') != std::string::npos) {
            fuzzsupport::fail("a key kept its separator: " + entry.first);
        }
    }
    return 0;
}
