// Mount information from "getdisk mnt" (the sim/ stand-in) and from a mount table file.
#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include "support/TestSupport.h"
#include "system/DeviceMountInfo.h"

using datacenter::DeviceMountInfo;
using datacenter::MountInfo;
using testsupport::underRoot;
using testsupport::writeFile;

namespace {

std::vector<std::string> mountPoints(const std::vector<MountInfo>& mounts) {
    std::vector<std::string> points;
    for (const MountInfo& mount : mounts) {
        points.push_back(mount.mountPoint);
    }
    return points;
}

void diskToolSays(const std::string& firstLine) {
    writeFile(underRoot("/sim/getdisk/mnt"),
              firstLine + "\n" + underRoot("/dev/sdc1,") + underRoot("/extdisks/sdc1\n"));
}

}  // namespace

TEST(DeviceMountInfoDiskTool, HotplugAndUserDisks) {
    diskToolSays("/dev/sda1," + underRoot("/extdisks/sda1") + "   /dev/sdb1," + underRoot("/userdisk") + " /dev/sdd1," +
                 underRoot("/userdisk/appdata/x") + " broken " + "/dev/sde1,a,b");
    const std::vector<MountInfo> hotplug = DeviceMountInfo::sGetHotplugDeviceMountInfo();
    ASSERT_EQ(1u, hotplug.size());
    EXPECT_EQ("/dev/sda1", hotplug[0].device);
    EXPECT_EQ(underRoot("/extdisks/sda1"), hotplug[0].mountPoint);

    EXPECT_EQ((std::vector<std::string>{underRoot("/extdisks/sda1"), underRoot("/userdisk")}),
              mountPoints(DeviceMountInfo::sGetUserAndExtDiskMountInfo()));
    EXPECT_NE(std::string::npos, testsupport::readFile(underRoot("/tmp/sim-commands.log")).find("getdisk mnt\n"));
}

TEST(DeviceMountInfoDiskTool, FailingToolGivesNothing) {
    EXPECT_TRUE(DeviceMountInfo::sGetHotplugDeviceMountInfo().empty());
    EXPECT_TRUE(DeviceMountInfo::sGetUserAndExtDiskMountInfo().empty());
    EXPECT_FALSE(DeviceMountInfo::sIsExistExtDisk(""));
}

TEST(DeviceMountInfoDiskTool, PluggedInAnswersFromDeviceOrCameraMarker) {
    const std::string device = underRoot("/dev-sim/sda1");
    diskToolSays(device + "," + underRoot("/extdisks/sda1") + " gphotofs," + underRoot("/extdisks/sdz9"));
    EXPECT_FALSE(DeviceMountInfo::sIsExistExtDisk(""));  // the first entry's device is missing
    writeFile(device, "");
    EXPECT_TRUE(DeviceMountInfo::sIsExistExtDisk(""));
    EXPECT_TRUE(DeviceMountInfo::sIsExistExtDisk(underRoot("/extdisks/sda")));
    EXPECT_FALSE(DeviceMountInfo::sIsExistExtDisk(underRoot("/extdisks/sdb")));

    EXPECT_FALSE(DeviceMountInfo::sIsExistExtDisk(underRoot("/extdisks/sdz9")));
    writeFile(underRoot("/tmp/sdz9.txt"), "");
    EXPECT_TRUE(DeviceMountInfo::sIsExistExtDisk(underRoot("/extdisks/sdz9")));
    EXPECT_TRUE(DeviceMountInfo::sIsExtDiskPlugIn(underRoot("/extdisks/sdz9"), "/no/such/device"));
}

TEST(DeviceMountInfoTable, PrimaryDiskMountsWithExistingDevices) {
    const std::string sda1 = underRoot("/dev-sim/sda1");
    const std::string sda2 = underRoot("/dev-sim/sda2");
    writeFile(sda1, "");
    writeFile(sda2, "");
    writeFile(underRoot("/tmp/userdisk_info"), "PRIMARY=" + underRoot("/dev-sim/sda") + "\n");
    const std::string table = underRoot("/mounts");
    writeFile(table, sda1 + " " + underRoot("/userdisk") + " ext4 rw 0 0\n" +  //
                         sda2 + " " + underRoot("/userdisk/appdata") + " ext4 rw 0 0\n" + underRoot("/dev-sim/sda3") +
                         " /gone ext4 rw 0 0\n" +   // device missing
                         sda1 + " /short ext4\n" +  // too few fields
                         "proc /proc proc rw 0 0\n");
    DeviceMountInfo::sSetMountTablePath(table);
    EXPECT_EQ((std::vector<std::string>{underRoot("/userdisk"), underRoot("/userdisk/appdata")}),
              mountPoints(DeviceMountInfo::sGetSystemDeviceMountInfo()));

    // Mounts at or below a folder, found by its real path, with the kernel's escapes undone.
    boost::filesystem::create_directories(underRoot("/userdisk"));
    const std::string real = boost::filesystem::canonical(underRoot("/userdisk")).string();
    boost::filesystem::create_directory_symlink(underRoot("/userdisk"), underRoot("/disk-link"));
    writeFile(table, "a " + real + " ext4 rw 0 0\nb " + real + "2 ext4 rw 0 0\nc " + real +
                         "/my\\040disk x rw 0 0\nd /elsewhere x rw 0 0\n");
    bool readable = false;
    EXPECT_EQ((std::vector<std::string>{real, real + "/my disk"}),
              DeviceMountInfo::sGetMountPointsBelow(underRoot("/disk-link/"), readable));
    EXPECT_TRUE(readable);
    EXPECT_TRUE(DeviceMountInfo::sGetMountPointsBelow(underRoot("/missing"), readable).empty());

    DeviceMountInfo::sSetMountTablePath(table + ".missing");
    EXPECT_TRUE(DeviceMountInfo::sGetSystemDeviceMountInfo().empty());
    DeviceMountInfo::sGetMountPointsBelow(underRoot("/userdisk"), readable);
    EXPECT_FALSE(readable);
    DeviceMountInfo::sSetMountTablePath("");
}

TEST(DeviceMountInfoTable, UnknownPrimaryDiskReportsEveryExistingDevice) {
    const std::string table = underRoot("/mounts");
    writeFile(table, "/dev/null /a x rw 0 0\n" + underRoot("/nothing") + " /b x rw 0 0\nproc /proc proc rw 0 0\n");
    DeviceMountInfo::sSetMountTablePath(table);
    const std::vector<MountInfo> mounts = DeviceMountInfo::sGetSystemDeviceMountInfo();
    ASSERT_EQ(1u, mounts.size());
    EXPECT_EQ("/dev/null", mounts[0].device);
    EXPECT_EQ("/a", mounts[0].mountPoint);
}
