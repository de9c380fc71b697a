#include "system/RootPrefix.h"

#include "system/Environment.h"

namespace datacenter {
namespace {

std::string readRoot() {
    std::string root = Environment::sGet("DATACENTER_ROOT");
    while (root.size() > 1 && root.back() == '/') {
        root.pop_back();
    }
    if (root == "/") {
        root.clear();
    }
    return root;
}

bool isKernelPath(const std::string& path) {
    for (const char* top : {"/proc", "/dev", "/sys"}) {
        const std::string prefix(top);
        if (path.compare(0, prefix.size(), prefix) == 0 &&
            (path.size() == prefix.size() || path[prefix.size()] == '/')) {
            return true;
        }
    }
    return false;
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

}  // namespace

const std::string& RootPrefix::sRoot() {
    static const std::string root = readRoot();
    return root;
}

std::string RootPrefix::sPath(const std::string& absolutePath) {
    if (absolutePath.empty() || absolutePath[0] != '/' || isKernelPath(absolutePath)) {
        return absolutePath;
    }
    return sRoot() + absolutePath;
}

bool RootPrefix::sIsRootItself(const std::string& path) {
    const std::string trimmed = withoutTrailingSlashes(path);
    if (trimmed == "/" || trimmed.empty()) {
        return true;
    }
    return !sRoot().empty() && trimmed == sRoot();
}

}  // namespace datacenter
