#pragma once
// Which storage devices are mounted where: the user disk, hot-plugged
// external disks and a PTP camera. Every query reads the system afresh, from
// the kernel's mount table or from "getdisk mnt".
#include <string>
#include <vector>

namespace datacenter {

struct MountInfo {
    std::string device;
    std::string mountPoint;
};

class DeviceMountInfo {
public:
    virtual ~DeviceMountInfo() = default;

    // Mounts of the primary disk device from the kernel's mount table whose
    // device path exists; every such mount when the primary device is unknown.
    // Empty when the table cannot be read.
    static std::vector<MountInfo> sGetSystemDeviceMountInfo();
    // External disks reported by "getdisk mnt"; empty when the command fails.
    static std::vector<MountInfo> sGetHotplugDeviceMountInfo();
    // The user disk and external disks from "getdisk mnt", without anything
    // mounted below the application data path.
    static std::vector<MountInfo> sGetUserAndExtDiskMountInfo();
    // For the PTP camera's mount point, whether its marker file exists;
    // otherwise whether the device path exists.
    static bool sIsExtDiskPlugIn(const std::string& mountPoint, const std::string& device);
    // Whether the first hot-plugged disk mounted below `prefix` is plugged in;
    // false when there is none.
    static bool sIsExistExtDisk(const std::string& prefix);

    // Mount points at `dir` or below it in the kernel's mount table (the
    // directory's real path is compared, links resolved), innermost last.
    // Empty when the directory is missing; `readable` tells whether the
    // table could be read at all.
    static std::vector<std::string> sGetMountPointsBelow(const std::string& dir, bool& readable);

    // Lets tests read another file instead of /proc/mounts; "" restores it.
    static void sSetMountTablePath(const std::string& path);
};

}  // namespace datacenter
