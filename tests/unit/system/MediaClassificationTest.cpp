#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/TestSupport.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

namespace {

enum Kind { NONE = 0, IMAGE = 1, RAW = 2, AUDIO = 4, VIDEO = 8, DOCUMENT = 16 };

struct KindCase {
    std::string name;
    int kinds;
};

int kindsOf(const std::string& name) {
    return (CommonUtils::sIsImage(name) ? IMAGE : 0) | (CommonUtils::sIsCameraRawImage(name) ? RAW : 0) |
           (CommonUtils::sIsAudio(name) ? AUDIO : 0) | (CommonUtils::sIsVideo(name) ? VIDEO : 0) |
           (CommonUtils::sIsDocument(name) ? DOCUMENT : 0);
}

// Folder names as a localised router has them; read when the configuration object is first made.
void writeLocalisation() {
    testsupport::writeFile(testsupport::underRoot("/etc/datacenterconfig/localization/country.txt"), "CN###zh.txt\n");
    testsupport::writeFile(testsupport::underRoot("/etc/datacenterconfig/localization/zh.txt"),
                           "init_create_download_dir_name###Downloads\ncamlo_camera_dir_name###Cams\n"
                           "backup_router_disk###RouterDisk\n");
}

}  // namespace

TEST(MediaClassificationTest, KindsByExtension) {
    const std::vector<KindCase> cases = {
        {"PHOTO.JPG", IMAGE},
        {"a.jpeg", IMAGE},
        {"/x/y/b.Png", IMAGE},
        {"c.gif", IMAGE},
        {"d.bmp", IMAGE},
        {"scan.Dng", IMAGE | RAW},
        {"a.tiff", IMAGE | RAW},
        {"a.tif", IMAGE | RAW},
        {"n.NEF", IMAGE | RAW},
        {"c.cr2", IMAGE | RAW},
        {"s.x3f", IMAGE | RAW},
        {"p.rw2", IMAGE | RAW},
        {"jpg", NONE},
        {"a.jpg.txt", NONE},
        {"song.MP3", AUDIO},
        {"x.flac", AUDIO},
        {"x.wavpack", AUDIO},
        {"ring.m4r", AUDIO},
        {"clip.MKV", VIDEO},
        {"movie.rmvb", VIDEO},
        {"a.mp4", VIDEO},
        {"old.wmvhd", VIDEO},
        {"phone.3gp", VIDEO},
        {"report.PDF", DOCUMENT},
        {"sheet.xlsx", DOCUMENT},
        {"deck.pptx", DOCUMENT},
        {"letter.docx", DOCUMENT},
        {"tpl.ett", DOCUMENT},
        {"note.txt", NONE},
        {"", NONE},
        {"clip.mts", NONE},
    };
    for (const KindCase& c : cases) {
        EXPECT_EQ(c.kinds, kindsOf(c.name)) << c.name;
    }
}

TEST(MediaClassificationTest, SupportedImageComparesWholeExtensions) {
    for (const std::string ext : {".jpg", ".JPEG", ".Png", ".bmp", ".gif"}) {
        EXPECT_TRUE(CommonUtils::sIsSupportedImage(ext)) << ext;
    }
    for (const std::string ext : {"jpg", ".tiff", "a.jpg", ".jpgx", ""}) {
        EXPECT_FALSE(CommonUtils::sIsSupportedImage(ext)) << ext;
    }
}

TEST(MediaClassificationTest, CameraRecordedVideoNames) {
    for (const std::string name :
         {"VID_20150102_123456.mp4", "20150102_120000.MOV", "00012.MTS", "IMG_0001.MOV", "GOPR0042.MP4", "DSCF1234.avi",
          "2015-01-02 12-00-00.mp4", "YDXJ0001.mp4", "QUICK_YDXJ0001.mp4", "MVI_1234.mov", "录像 001.mp4",
          "video(1).mkv", "20150102_1200WA01.mp4"}) {
        EXPECT_TRUE(CommonUtils::sIsAutodyneVideo(name)) << name;
    }
    for (const std::string name :
         {"holiday.mp4", "note.txt", "VID_20150102_123456.txt", "20151302_1200.mp4", "clip.mts", "0001a.mts",
          "/sd/DCIM/VID_20150102_123456.mp4", "VID.mp4", "IMG_0001.jpg"}) {
        EXPECT_FALSE(CommonUtils::sIsAutodyneVideo(name)) << name;
    }
}

TEST(MediaClassificationTest, FolderFilters) {
    for (const std::string name : {".git", "Cache2", "cache", "$RECYCLE.BIN", "RECYCLER", "Recycled"}) {
        EXPECT_TRUE(CommonUtils::isFilterDirName(name)) << name;
    }
    for (const std::string name : {"photos", "my.cache", "Recycle", ""}) {
        EXPECT_FALSE(CommonUtils::isFilterDirName(name)) << name;
    }

    for (const std::string path : {"/extdisks/sda1/korvia_config", "/userdisk/data/ThunderDB",
                                   "/extdisks/sdb1/System Volume Information", "/x/KORVIA_ROUTER"}) {
        EXPECT_TRUE(CommonUtils::isSystemDirPath(path)) << path;
    }
    for (const std::string path : {"/userdisk/data/korvia_config/x", "/userdisk/data", ""}) {
        EXPECT_FALSE(CommonUtils::isSystemDirPath(path)) << path;
    }

    for (const std::string name : {"bin", "cache_dir", "dev", "lib", "proc", "tmp", "userdata"}) {
        EXPECT_TRUE(CommonUtils::sIsInPluginChownFilterList(name)) << name;
    }
    for (const std::string name : {"BIN", "etc", "lib64", "", "usr"}) {
        EXPECT_FALSE(CommonUtils::sIsInPluginChownFilterList(name)) << name;
    }
}

TEST(MediaClassificationTest, DownloadTemporariesLieInTheDownloadFolder) {
    writeLocalisation();
    const std::string downloads = datacenter::ConfigInfo::sGetInstance()->getDownloadFolderPath();
    ASSERT_EQ(testsupport::underRoot("/userdisk/data/Downloads/"), downloads);
    for (const std::string& path : {downloads + "a.td", downloads + "sub/b.CFG", downloads + ".cfg"}) {
        EXPECT_TRUE(CommonUtils::sIsDownloadTmpFile(path)) << path;
    }
    for (const std::string& path : {downloads + "a.mp4", downloads + "a.td.part",
                                    testsupport::underRoot("/userdisk/data/Other/a.td"), std::string("a.td")}) {
        EXPECT_FALSE(CommonUtils::sIsDownloadTmpFile(path)) << path;
    }
}

TEST(MediaClassificationTest, IndexIgnoredFolders) {
    writeLocalisation();
    for (const std::string path :
         {"/userdisk/data/.hidden/a.jpg", "/userdisk/data/Cache/x", "/userdisk/data/$RECYCLE.BIN/y",
          "/userdisk/data/RouterDisk/z", "/userdisk/data/timecapsule", "/userdisk/data/Cams/v.mp4",
          "/userdisk/data/shuijing_kuangchang/p", "/userdisk/data/共享/.piccache/t.jpg"}) {
        EXPECT_TRUE(CommonUtils::isFilterDirPath(testsupport::underRoot(path))) << path;
    }
    for (const std::string path : {"/userdisk/data/photos/a.jpg", "/userdisk/data/共享/a.jpg", "/extdisks/sda1/.x"}) {
        EXPECT_FALSE(CommonUtils::isFilterDirPath(testsupport::underRoot(path))) << path;
    }
}
