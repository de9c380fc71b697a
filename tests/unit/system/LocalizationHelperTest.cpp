// Localisation files: line syntax, the country to language mapping and its fallbacks.
#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "system/LocalizationHelper.h"

using datacenter::LocalizationHelper;
using testsupport::writeFile;

namespace {

std::string folderWith(const std::string& countryFile) {
    const std::string folder = testsupport::makeScratchDir("localization");
    writeFile(folder + "/country.txt", countryFile);
    writeFile(folder + "/zh.txt", "backup_photo_dir_name###照片\n");
    writeFile(folder + "/en.txt",
              "backup_photo_dir_name ### Photos\r\nplain line\na#b#c\n##\nkey####late\nkey#later\n");
    return folder;
}

void setCountry(const std::string& code) {
    writeFile(testsupport::underRoot("/tmp/commonutils.config.tmp"), "code = \"" + code + "\";\n");
}

}  // namespace

TEST(LocalizationFiles, CountryChoosesTheLanguageFile) {
    setCountry("US");
    const LocalizationHelper helper(folderWith("CN###zh.txt\nUS ### en.txt\r\n"));
    EXPECT_EQ("Photos", helper.getValue("backup_photo_dir_name"));
    // Runs of number signs separate, blanks and line ends are stripped.
    EXPECT_EQ("b", helper.getValue("a"));
    EXPECT_EQ("later", helper.getValue("key"));
    EXPECT_EQ("", helper.getValue("plain line"));
    EXPECT_EQ("", helper.getValue("missing"));
    EXPECT_EQ("zh.txt", helper.getLanguagelPath("FR"));
}

TEST(LocalizationFiles, UnknownCountryUsesChinaAndThenNothing) {
    setCountry("FR");
    const LocalizationHelper helper(folderWith("CN###zh.txt\nUS###en.txt\n"));
    EXPECT_EQ("照片", helper.getValue("backup_photo_dir_name"));

    const LocalizationHelper without(folderWith("US###en.txt\n"));
    EXPECT_EQ("", without.getValue("backup_photo_dir_name"));
    EXPECT_EQ("", without.getLanguagelPath("FR"));

    const LocalizationHelper empty(testsupport::makeScratchDir("no-files"));
    EXPECT_EQ("", empty.getValue("backup_photo_dir_name"));
}

TEST(LocalizationFiles, AnOverlongLineEndsTheFile) {
    const std::string file = testsupport::makeScratchDir("long") + "/lang.txt";
    writeFile(file,
              "first###1\n" + std::string(1022, 'k') + "\nsecond###2\n" + std::string(2000, 'x') + "###3\nthird###4\n");
    std::map<std::string, std::string> entries;
    entries["stale"] = "gone";
    LocalizationHelper::parseFile(entries, file);
    EXPECT_EQ((std::map<std::string, std::string>{{"first", "1"}, {"second", "2"}}), entries);

    LocalizationHelper::parseFile(entries, file + ".missing");
    EXPECT_TRUE(entries.empty());
}
