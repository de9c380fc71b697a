#include <cstdio>

#include "storage/File.h"
#include "system/CommonUtils.h"

namespace {

struct PathParts {
    bool hasParent = false;
    std::string parent;  // text before the last "/"
    std::string stem;
    std::string extension;  // from the last "." of the file name, dot included
};

PathParts splitPath(const std::string& path) {
    PathParts parts;
    const std::string::size_type slash = path.rfind('/');
    std::string name = path;
    if (slash != std::string::npos) {
        parts.hasParent = true;
        parts.parent = path.substr(0, slash);
        name = path.substr(slash + 1);
    }
    const std::string::size_type dot = name.rfind('.');
    parts.stem = dot == std::string::npos ? name : name.substr(0, dot);
    parts.extension = dot == std::string::npos ? std::string() : name.substr(dot);
    return parts;
}

std::string joinPath(const PathParts& parts, const std::string& name) {
    return parts.hasParent ? parts.parent + "/" + name : name;
}

// Position of the "(" that opens a trailing "(digits)" group of the stem, or npos.
std::string::size_type numberedSuffixStart(const std::string& stem) {
    if (stem.size() < 3 || stem.back() != ')') {
        return std::string::npos;
    }
    std::string::size_type i = stem.size() - 2;
    std::string::size_type digits = 0;
    while (i > 0 && stem[i] >= '0' && stem[i] <= '9') {
        --i;
        ++digits;
    }
    return (digits > 0 && stem[i] == '(') ? i : std::string::npos;
}

}  // namespace

std::string CommonUtils::sGetDuplicateFileName(const std::string& path) {
    if (!datacenter::File::sExists(path)) {
        return path;
    }
    PathParts parts = splitPath(path);
    if (!parts.stem.empty() && parts.stem.back() != ')') {
        parts.stem += "(1)";
    }
    const std::string::size_type open = numberedSuffixStart(parts.stem);
    if (open == std::string::npos) {
        // The name ends in a group that is not a plain number: number it anew.
        return joinPath(parts, parts.stem + "(1)" + parts.extension);
    }
    const std::string base = parts.stem.substr(0, open);
    for (int k = 1;; ++k) {
        char number[32];
        snprintf(number, sizeof(number), "(%d)", k);
        const std::string candidate = joinPath(parts, base + number + parts.extension);
        if (!datacenter::File::sExists(candidate)) {
            return candidate;
        }
    }
}
