#include "FuzzSupport.h"

#include <glog/logging.h>
#include <stdlib.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cstdio>
#include <fstream>
#include <vector>

namespace fs = boost::filesystem;

namespace fuzzsupport {
namespace {

struct TemporaryRoot {
    std::string path;
    TemporaryRoot() {
        std::string pattern = (fs::temp_directory_path() / "dc-fuzz-XXXXXX").string();
        if (!mkdtemp(&pattern[0])) {
            fail("cannot create the temporary root");
        }
        path = pattern;
        setenv("DATACENTER_ROOT", path.c_str(), 1);
    }
    ~TemporaryRoot() {
        boost::system::error_code ignored;
        fs::remove_all(path, ignored);
    }
};

}  // namespace

const std::string& root() {
    static TemporaryRoot temporary;
    return temporary.path;
}

std::string underRoot(const std::string& absolutePath) {
    return root() + absolutePath;
}

void writeInput(const std::string& path, const uint8_t* data, size_t size) {
    boost::system::error_code ignored;
    fs::create_directories(fs::path(path).parent_path(), ignored);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) {
        fail("cannot write the input to " + path);
    }
}

std::string listTree(const std::string& dir) {
    std::vector<std::string> paths;
    boost::system::error_code ec;
    for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        paths.push_back(it->path().lexically_relative(dir).string());
    }
    std::sort(paths.begin(), paths.end());
    std::string listing;
    for (const std::string& path : paths) {
        listing += path + "\n";
    }
    return listing;
}

void fail(const std::string& what) {
    fprintf(stderr, "fuzz target: %s\n", what.c_str());
    abort();
}

void quietLogs() {
    FLAGS_minloglevel = 3;
    FLAGS_logtostderr = true;
}

}  // namespace fuzzsupport
