// How names and paths are sorted: media kinds by extension, camera video
// names, folders left out of listings, indexing and ownership changes. One
// golden table lists every name with the kinds it was given.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/Golden.h"
#include "support/TestSupport.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"

namespace {

typedef std::vector<std::pair<std::string, std::function<bool(const std::string&)>>> Checks;

// A heading, then one line per name: the name and the checks that hold for it, "-" for none.
std::string classify(const std::string& heading, const std::vector<std::string>& names, const Checks& checks) {
    std::string text = "[" + heading + "]\n";
    for (const std::string& name : names) {
        std::string kinds;
        for (const auto& check : checks) {
            kinds += check.second(name) ? " " + check.first : "";
        }
        text += "'" + name + "':" + (kinds.empty() ? " -" : kinds) + "\n";
    }
    return text;
}

Checks one(const std::string& label, const std::function<bool(const std::string&)>& check) {
    return {{label, check}};
}

}  // namespace

TEST(MediaClassificationTest, NamesAndPathsByKind) {
    // Folder names as a localised router has them; read when the configuration object is first made.
    testsupport::writeFile(testsupport::underRoot("/etc/datacenterconfig/localization/country.txt"), "CN###zh.txt\n");
    testsupport::writeFile(testsupport::underRoot("/etc/datacenterconfig/localization/zh.txt"),
                           "init_create_download_dir_name###Downloads\ncamlo_camera_dir_name###Cams\n"
                           "backup_router_disk###RouterDisk\n");
    const std::string downloads = datacenter::ConfigInfo::sGetInstance()->getDownloadFolderPath();
    ASSERT_EQ(testsupport::underRoot("/userdisk/data/Downloads/"), downloads);
    std::vector<std::string> indexed;
    for (const std::string path :
         {"/userdisk/data/.hidden/a.jpg", "/userdisk/data/Cache/x", "/userdisk/data/$RECYCLE.BIN/y",
          "/userdisk/data/RouterDisk/z", "/userdisk/data/timecapsule", "/userdisk/data/Cams/v.mp4",
          "/userdisk/data/shuijing_kuangchang/p", "/userdisk/data/共享/.piccache/t.jpg", "/userdisk/data/photos/a.jpg",
          "/userdisk/data/共享/a.jpg", "/extdisks/sda1/.x"}) {
        indexed.push_back(testsupport::underRoot(path));
    }

    const std::string text =
        classify(
            "media kinds",
            {"PHOTO.JPG",  "a.jpeg",    "/x/y/b.Png",  "c.gif",      "d.bmp",    "scan.Dng",  "a.tiff",    "a.tif",
             "n.NEF",      "c.cr2",     "s.x3f",       "p.rw2",      "jpg",      "a.jpg.txt", "song.MP3",  "x.flac",
             "x.wavpack",  "ring.m4r",  "clip.MKV",    "movie.rmvb", "a.mp4",    "old.wmvhd", "phone.3gp", "report.PDF",
             "sheet.xlsx", "deck.pptx", "letter.docx", "tpl.ett",    "note.txt", "",          "clip.mts"},
            {{"image", CommonUtils::sIsImage},
             {"raw", CommonUtils::sIsCameraRawImage},
             {"audio", CommonUtils::sIsAudio},
             {"video", CommonUtils::sIsVideo},
             {"document", CommonUtils::sIsDocument}}) +
        // Whole extensions only.
        classify("supported image extensions",
                 {".jpg", ".JPEG", ".Png", ".bmp", ".gif", "jpg", ".tiff", "a.jpg", ".jpgx", ""},
                 one("supported", CommonUtils::sIsSupportedImage)) +
        classify("camera videos",
                 {"VID_20150102_123456.mp4",
                  "20150102_120000.MOV",
                  "00012.MTS",
                  "IMG_0001.MOV",
                  "GOPR0042.MP4",
                  "DSCF1234.avi",
                  "2015-01-02 12-00-00.mp4",
                  "YDXJ0001.mp4",
                  "QUICK_YDXJ0001.mp4",
                  "MVI_1234.mov",
                  "录像 001.mp4",
                  "video(1).mkv",
                  "20150102_1200WA01.mp4",
                  "holiday.mp4",
                  "note.txt",
                  "VID_20150102_123456.txt",
                  "20151302_1200.mp4",
                  "clip.mts",
                  "0001a.mts",
                  "/sd/DCIM/VID_20150102_123456.mp4",
                  "VID.mp4",
                  "IMG_0001.jpg"},
                 one("camera", CommonUtils::sIsAutodyneVideo)) +
        classify(
            "folder names left out",
            {".git", "Cache2", "cache", "$RECYCLE.BIN", "RECYCLER", "Recycled", "photos", "my.cache", "Recycle", ""},
            one("filtered", CommonUtils::isFilterDirName)) +
        classify(
            "system folders",
            {"/extdisks/sda1/korvia_config", "/userdisk/data/ThunderDB", "/extdisks/sdb1/System Volume Information",
             "/x/KORVIA_ROUTER", "/userdisk/data/korvia_config/x", "/userdisk/data", ""},
            one("system", CommonUtils::isSystemDirPath)) +
        classify("plugin folders not handed over",
                 {"bin", "cache_dir", "dev", "lib", "proc", "tmp", "userdata", "BIN", "etc", "lib64", "", "usr"},
                 one("kept", CommonUtils::sIsInPluginChownFilterList)) +
        classify("download temporaries",
                 {downloads + "a.td", downloads + "sub/b.CFG", downloads + ".cfg", downloads + "a.mp4",
                  downloads + "a.td.part", testsupport::underRoot("/userdisk/data/Other/a.td"), "a.td"},
                 one("temporary", CommonUtils::sIsDownloadTmpFile)) +
        classify("paths left out of the index", indexed, one("ignored", CommonUtils::isFilterDirPath));
    EXPECT_GOLDEN("media/classification", text);
}
