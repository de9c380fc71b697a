// The storage layout: localised names, start-up facts and path predicates,
// all under the test root.
#include <gtest/gtest.h>

#include "storage/Directory.h"
#include "support/Golden.h"
#include "support/TestSupport.h"
#include "system/ConfigInfo.h"

using datacenter::ConfigInfo;
using testsupport::underRoot;
using testsupport::writeFile;

TEST(ConfigInfoLayout, DefaultsWithoutLocalisationFiles) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    EXPECT_EQ("摄像机监控视频", config->getCamloCameraDirName());
    EXPECT_EQ(underRoot("/userdisk/data/"), config->getNewPrivacyDataFolderPath());
    EXPECT_EQ("", config->getBackupImageDirName());
    EXPECT_EQ("", config->getExtdiskDeviceName());
    EXPECT_EQ("", config->getPrimaryDiskDevice());
    EXPECT_EQ(6u, config->getMainDirectoriesName().size());

    // Without a router-disk backup name its entry is the data folder itself.
    EXPECT_GOLDEN("layout/index-ignored-defaults", testsupport::joinLines(config->getIndexIgnoredFolders()));
}

TEST(ConfigInfoLayout, LocalisedNamesFromTheCountryLanguage) {
    writeFile(underRoot("/etc/datacenterconfig/localization/country.txt"), "CN###zh.txt\n");
    writeFile(underRoot("/etc/datacenterconfig/localization/zh.txt"),
              "backup_photo_dir_name###Photos\ninit_create_video_dir_name###Videos\n"
              "init_create_download_dir_name###Downloads\nnew_privacy_data_path###Private\n"
              "camlo_camera_dir_name###Cams\nbackup_router_disk###RouterDisk\n");
    ConfigInfo* config = ConfigInfo::sGetInstance();
    EXPECT_EQ("Photos", config->getBackupImageDirName());
    EXPECT_EQ("Videos", config->getMainDirectoriesName()[0]);
    EXPECT_EQ(underRoot("/userdisk/data/Private"), config->getNewPrivacyDataFolderPath());
    EXPECT_EQ(underRoot("/userdisk/data/Cams"), config->getCamloCameraPath());
    EXPECT_EQ(underRoot("/userdisk/data/RouterDisk"), config->getIndexIgnoredFolders()[6]);

    const std::string downloads = config->getDownloadFolderPath();
    EXPECT_EQ(underRoot("/userdisk/data/Downloads/"), downloads);
    EXPECT_TRUE(datacenter::Directory::sIsDirectory(downloads));
}

TEST(ConfigInfoLayout, PrimaryDiskDeviceFromTheFirstMarkedLine) {
    writeFile(underRoot("/tmp/userdisk_info"), "SIZE=100\nPRIMARY=sda1\nPRIMARY=sdb1\n");
    EXPECT_EQ("sda1", ConfigInfo::sGetInstance()->getPrimaryDiskDevice());
}

TEST(ConfigInfoLayout, UserDataPathsAndCameras) {
    ConfigInfo* config = ConfigInfo::sGetInstance();
    EXPECT_TRUE(config->isUserDataPath(underRoot("/userdisk/data/photos/a.jpg")));
    EXPECT_TRUE(config->isUserDataPath(underRoot("/EXTDISKS/sda1/x")));
    EXPECT_TRUE(config->isUserDataPath(underRoot("/extdisks/sda1")));
    EXPECT_FALSE(config->isUserDataPath(underRoot("/userdisk/data/../etc")));
    EXPECT_FALSE(config->isUserDataPath(underRoot("/extdisks/../etc/passwd")));
    EXPECT_FALSE(config->isUserDataPath(underRoot("/userdisk/appdata/x")));
    EXPECT_FALSE(config->isUserDataPath("/userdisk/data/x"));  // outside the root

    EXPECT_TRUE(config->isRecognizableCamera("Canon"));
    EXPECT_TRUE(config->isRecognizableCamera("Canon Inc."));
    EXPECT_TRUE(config->isRecognizableCamera(""));
    EXPECT_FALSE(config->isRecognizableCamera("Nokia"));
}

TEST(ConfigInfoLayout, BackupPathsFollowTheDrive) {
    writeFile(underRoot("/etc/datacenterconfig/localization/country.txt"), "CN###zh.txt\n");
    writeFile(underRoot("/etc/datacenterconfig/localization/zh.txt"),
              "backup_photo_dir_name###Photos\nbackup_movie_dir_name###Movies\n");
    ConfigInfo* config = ConfigInfo::sGetInstance();
    EXPECT_EQ(underRoot("/userdisk/data/phone1"), config->getBackupImagePath("phone1", 1));
    EXPECT_EQ(underRoot("/userdisk/data/phone1/Photos"), config->getBackupImagePath("phone1", 2));

    const std::string drive = testsupport::makeScratchDir("drive");
    config->setBackupDrivePath(drive);
    bool existed = true;
    EXPECT_EQ(drive + "/phone1/Movies", config->getBackupVideoPath(existed, false, "phone1"));
    EXPECT_FALSE(existed);
    EXPECT_FALSE(datacenter::Directory::sExists(drive + "/phone1/Movies"));
    config->getBackupVideoPath(existed, true, "phone1");
    EXPECT_FALSE(existed);
    EXPECT_TRUE(datacenter::Directory::sIsDirectory(drive + "/phone1/Movies"));
    config->getBackupVideoPath(existed, false, "phone1");
    EXPECT_TRUE(existed);
    EXPECT_EQ(drive + "/phone1", config->getBackupRootPath(existed, "phone1"));
    EXPECT_TRUE(existed);
}
