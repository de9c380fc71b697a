#include "system/DeviceMountInfo.h"

#include <glog/logging.h>

#include <boost/algorithm/string/predicate.hpp>
#include <cstdlib>
#include <fstream>
#include <mutex>

#include "storage/File.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

namespace datacenter {
namespace {

const char* const kKernelMountTable = "/proc/mounts";

std::mutex gMountTableMutex;
std::string gMountTablePath = kKernelMountTable;

std::string mountTablePath() {
    std::lock_guard<std::mutex> lock(gMountTableMutex);
    return gMountTablePath;
}

using Filter = bool (*)(const std::string& mountPoint);

// Entries "device,mountPoint" of the first line of "getdisk mnt" that pass `keep`.
std::vector<MountInfo> diskToolMounts(Filter keep, const char* logName) {
    std::vector<MountInfo> mounts;
    std::string output;
    if (!CommonUtils::sCallSystem("getdisk mnt", output)) {
        return mounts;
    }
    const std::string firstLine = CommonUtils::splitString(output, "\n").front();
    for (const std::string& entry : CommonUtils::splitStringTokenCompress(firstLine, " ")) {
        const std::vector<std::string> parts = CommonUtils::splitString(entry, ",");
        if (parts.size() != 2 || !keep(parts[1])) {
            continue;
        }
        LOG(INFO) << logName << " device name: " << parts[0] << " mount point: " << parts[1];
        mounts.push_back(MountInfo{parts[0], parts[1]});
    }
    return mounts;
}

// A mount point as the kernel writes it: space, tab, newline and backslash
// are octal escapes ("\040").
std::string unescapeMountPoint(const std::string& field) {
    std::string text;
    for (size_t i = 0; i < field.size(); ++i) {
        const bool octal =
            field[i] == '\\' && i + 3 < field.size() && field.find_first_not_of("01234567", i + 1) >= i + 4;
        if (octal) {
            text += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            text += field[i];
        }
    }
    return text;
}

bool isExternalDisk(const std::string& mountPoint) {
    return boost::algorithm::starts_with(mountPoint, ConfigInfo::sGetInstance()->getExtdiskRootPath());
}

bool isUserOrExternalDisk(const std::string& mountPoint) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    if (boost::algorithm::starts_with(mountPoint, config->getUserdiskAppDataPath())) {
        return false;
    }
    return boost::algorithm::starts_with(mountPoint, config->getUserdiskRootPath()) || isExternalDisk(mountPoint);
}

}  // namespace

void DeviceMountInfo::sSetMountTablePath(const std::string& path) {
    std::lock_guard<std::mutex> lock(gMountTableMutex);
    gMountTablePath = path.empty() ? kKernelMountTable : path;
}

std::vector<MountInfo> DeviceMountInfo::sGetSystemDeviceMountInfo() {
    const std::string primary = ConfigInfo::sGetInstance()->getPrimaryDiskDevice();
    std::vector<MountInfo> mounts;
    std::ifstream table(mountTablePath());
    for (std::string line; table && std::getline(table, line);) {
        if (!boost::algorithm::starts_with(line, primary)) {
            continue;
        }
        const std::vector<std::string> fields = CommonUtils::splitStringTokenCompress(line, " ");
        if (fields.size() < 4 || !boost::algorithm::starts_with(fields[0], primary) || !File::sExists(fields[0])) {
            continue;
        }
        mounts.push_back(MountInfo{fields[0], fields[1]});
    }
    return mounts;
}

std::vector<std::string> DeviceMountInfo::sGetMountPointsBelow(const std::string& dir, bool& readable) {
    std::vector<std::string> points;
    std::ifstream table(mountTablePath());
    readable = static_cast<bool>(table);
    char* real = realpath(dir.c_str(), nullptr);
    if (!real) {
        return points;
    }
    const std::string base = real;
    free(real);
    for (std::string line; table && std::getline(table, line);) {
        const std::vector<std::string> fields = CommonUtils::splitStringTokenCompress(line, " ");
        if (fields.size() < 2) {
            continue;
        }
        const std::string point = unescapeMountPoint(fields[1]);
        if (point == base || (point.size() > base.size() && boost::algorithm::starts_with(point, base) &&
                              (base == "/" || point[base.size()] == '/'))) {
            points.push_back(point);
        }
    }
    return points;
}

std::vector<MountInfo> DeviceMountInfo::sGetHotplugDeviceMountInfo() {
    return diskToolMounts(&isExternalDisk, "DeviceMountInfo.sGetHotplugDeviceMountInfo");
}

std::vector<MountInfo> DeviceMountInfo::sGetUserAndExtDiskMountInfo() {
    return diskToolMounts(&isUserOrExternalDisk, "DeviceMountInfo.sGetUserAndExtDiskMountInfo");
}

bool DeviceMountInfo::sIsExtDiskPlugIn(const std::string& mountPoint, const std::string& device) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    if (mountPoint == config->getPTPCameraMountPoint()) {
        return File::sExists(config->getPTPCameraExistPath());
    }
    return File::sExists(device);
}

bool DeviceMountInfo::sIsExistExtDisk(const std::string& prefix) {
    for (const MountInfo& mount : sGetHotplugDeviceMountInfo()) {
        if (boost::algorithm::starts_with(mount.mountPoint, prefix)) {
            return sIsExtDiskPlugIn(mount.mountPoint, mount.device);
        }
    }
    return false;
}

}  // namespace datacenter
