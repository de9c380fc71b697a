// The unpacking step on arbitrary archives. Whatever the archive holds
// (climbing names, links, duplicates, broken headers), nothing may appear
// anywhere but below the destination directory. The destination lies four
// levels below the temporary root, so an entry that climbs out by up to four
// levels still lands where the check below sees it.
#include <boost/filesystem.hpp>
#include <cstdint>
#include <sstream>
#include <string>

#include "FuzzSupport.h"
#include "Plugin/installAction/PackageFiles.h"

namespace {

const char* const kDestination = "outer/userdisk/appdata/plugin";

// The listing of the root without the destination and what lies below it.
std::string listOutsideDestination(const std::string& root) {
    std::istringstream listing(fuzzsupport::listTree(root));
    std::string kept;
    const std::string destination = kDestination;
    for (std::string line; std::getline(listing, line);) {
        if (line != destination && line.rfind(destination + "/", 0) != 0) {
            kept += line + "\n";
        }
    }
    return kept;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::root();
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string root = fuzzsupport::root();
    const std::string destination = root + "/" + kDestination + "/";
    boost::system::error_code ignored;
    boost::filesystem::remove_all(destination, ignored);
    // A sibling whose name shares the destination's prefix.
    boost::filesystem::create_directories(root + "/outer/userdisk/appdata/plugin-sibling", ignored);
    fuzzsupport::writeInput(root + "/input.zip", data, size);
    const std::string before = listOutsideDestination(root);

    PackageFiles::sUnzip(root + "/input.zip", destination);

    const std::string after = listOutsideDestination(root);
    if (after != before) {
        fuzzsupport::fail("the archive wrote outside the destination:\n" + after);
    }
    return 0;
}
