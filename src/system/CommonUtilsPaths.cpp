// Path strings and names: cleaning, normalising, escaping, free names for
// copies, file times and sizes, and whether a device may be unmounted.
#include <glog/logging.h>
#include <sys/time.h>

#include <cstdio>
#include <vector>

#include "storage/File.h"
#include "system/CommonUtils.h"
#include "system/DeviceMountInfo.h"

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

const char* const kCopyMarker = "-副本";

bool isAllDigits(const std::string& text) {
    return text.find_first_not_of("0123456789") == std::string::npos;
}

// The stem without a trailing "-副本" or "-副本<number>", so that copies of copies are numbered, not nested.
std::string withoutCopyMarker(const std::string& stem) {
    const std::string marker(kCopyMarker);
    const std::string::size_type at = stem.rfind(marker);
    if (at != std::string::npos && isAllDigits(stem.substr(at + marker.size()))) {
        return stem.substr(0, at);
    }
    return stem;
}

}  // namespace

std::string CommonUtils::sRemoveMarks(const std::string& text) {
    std::string result = text;
    if (text.size() >= 2 && text.front() == '\'' && text.rfind('\'') == text.size() - 1) {
        result = text.substr(1, text.size() - 2);
    }
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
        result = text.substr(1, text.size() - 2);
    }
    return result;
}

bool CommonUtils::sIsContainInvalidChar(const std::string& text) {
    static const std::string invalid = "\\:*?\"<>|;";
    const std::string::size_type at = text.find_first_of(invalid);
    if (at == std::string::npos) {
        return false;
    }
    LOG(INFO) << text << "contains invalid char which is " << text[at];
    return true;
}

std::string CommonUtils::sGetEscapedPath(const std::string& path) {
    static const std::string escaped = " *?()";
    std::string result;
    result.reserve(path.size() + 8);
    for (const char c : path) {
        if (escaped.find(c) != std::string::npos) {
            LOG(ERROR) << path << "contains invalid char which is " << c;
            result += '\\';
        }
        result += c;
    }
    return result;
}

std::string CommonUtils::sUnifyPathStyle(const std::string& path) {
    if (path.size() >= 2 && path.back() == '/') {
        return path.substr(0, path.size() - 1);
    }
    return path;
}

std::string CommonUtils::sCompleteDirPath(const std::string& path) {
    if (path.size() >= 2 && path.back() != '/') {
        return path + "/";
    }
    return path;
}

bool CommonUtils::sGetAbsolutePath(const std::string& path, std::string& out) {
    std::vector<std::string> stack;
    for (const std::string& part : splitString(path, "/")) {
        if (part.empty() || part == ".") {
            continue;
        }
        if (part == "..") {
            if (stack.empty()) {
                return false;
            }
            stack.pop_back();
        } else if (part.compare(0, 3, "...") == 0) {
            return false;
        } else {
            stack.push_back(part);
        }
    }
    out.clear();
    for (const std::string& part : stack) {
        out += out.empty() ? part : "/" + part;
    }
    if (!path.empty() && path.front() == '/') {
        out = "/" + out;
    }
    // "/" alone already ends with the slash it began with.
    if (!path.empty() && path.back() == '/' && (out.empty() || out.back() != '/')) {
        out += "/";
    }
    return true;
}

std::string CommonUtils::sRemoveSuffix(const std::string& text, char suffix) {
    std::string result = text;
    while (result.size() > 1 && result.back() == suffix) {
        result.pop_back();
    }
    return result;
}

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

std::string CommonUtils::sGetDuplicatePath(const std::string& path) {
    if (path.empty() || !datacenter::File::sExists(path)) {
        return path;
    }
    PathParts parts = splitPath(path);
    parts.stem = withoutCopyMarker(parts.stem) + kCopyMarker;
    std::string candidate = joinPath(parts, parts.stem + parts.extension);
    if (!datacenter::File::sExists(candidate)) {
        return candidate;
    }
    for (int k = 2;; ++k) {
        candidate = joinPath(parts, parts.stem + std::to_string(k) + parts.extension);
        if (!datacenter::File::sExists(candidate)) {
            LOG(INFO) << "CommonUtils::sGetDuplicatePath return newPath: " << candidate;
            return candidate;
        }
    }
}

struct stat64 CommonUtils::sGetFileStat(const std::string& path) {
    struct stat64 info = {};
    stat64(path.c_str(), &info);
    LOG(INFO) << "the device id of " << path << " is :" << info.st_dev;
    return info;
}

time_t CommonUtils::sGetFileModifyTime(const std::string& path) {
    struct stat64 info = {};
    return stat64(path.c_str(), &info) == 0 ? info.st_mtime : 0;
}

void CommonUtils::sSetFileModifyTime(const std::string& path, time_t seconds) {
    struct timeval times[2] = {};
    times[0].tv_sec = seconds;
    times[1].tv_sec = seconds;
    utimes(path.c_str(), times);
}

int64_t CommonUtils::sGetFileSize(const std::string& path) {
    struct stat64 info = {};
    return stat64(path.c_str(), &info) == 0 ? static_cast<int64_t>(info.st_size) : 0;
}

bool CommonUtils::sIsCanUmountDevice(const std::string& path) {
    if (path.empty()) {
        return false;
    }
    const std::string trimmed = sRemoveSuffix(path, '/');
    if (trimmed == "/") {
        return false;
    }
    // The primary disk carries the system's own data and stays mounted.
    for (const datacenter::MountInfo& mount : datacenter::DeviceMountInfo::sGetSystemDeviceMountInfo()) {
        if (trimmed == mount.device || trimmed == mount.mountPoint) {
            return false;
        }
    }
    return true;
}
