#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "sign/PluginArchive.h"
#include "unit/sign/SignFixture.h"

using namespace packagesign;
using testsupport::writeFile;

namespace {

class PluginArchive : public signtest::SignFixture {
protected:
    std::string makeTree() {
        const std::string tree = work("tree");
        writeFile(tree + "/manifest", "plugin_id = \"demo.plugin\";\nversion = \"2.0.1\";\n");
        writeFile(tree + "/bin/app", "#!/bin/sh\n");
        writeFile(tree + "/www/css/site.css", "body{}");
        return tree;
    }
};

}  // namespace

TEST_F(PluginArchive, PacksFileEntriesOnlyAndReadsTheManifestBackFromThePackage) {
    const std::string tree = makeTree();
    size_t count = 0;
    ASSERT_EQ("", packPluginTree(tree, work("plugin.zip"), count));
    EXPECT_EQ(3u, count);
    EXPECT_EQ("bin/app\nmanifest\nwww/css/site.css\n",
              testsupport::runCommand("unzip -Z1 " + work("plugin.zip") + " | LC_ALL=C sort").output);

    ASSERT_EQ(kOk, sign("developer", 0, work("plugin.zip"), work("plugin.qpk")));
    PackageHeader header;
    ASSERT_EQ(kOk, readPackageHeader(work("plugin.qpk"), header));
    ManifestFields fields;
    ASSERT_EQ("", readPayloadManifest(work("plugin.qpk"), header.payloadSize, fields));
    EXPECT_EQ("demo.plugin", fields.pluginId);
    EXPECT_EQ("2.0.1", fields.version);
}

TEST_F(PluginArchive, RefusesTreesThatCannotBecomeAPayload) {
    const std::string tree = makeTree();
    size_t count = 0;
    ASSERT_EQ(0, ::symlink("bin/app", (tree + "/link").c_str()));
    EXPECT_NE("", packPluginTree(tree, work("linked.zip"), count));
    ::unlink((tree + "/link").c_str());
    ::unlink((tree + "/manifest").c_str());
    EXPECT_NE("", packPluginTree(tree, work("nomanifest.zip"), count));
    EXPECT_NE("", packPluginTree(work("missing"), work("missing.zip"), count));
    EXPECT_FALSE(signtest::exists(work("linked.zip")));
    EXPECT_FALSE(signtest::exists(work("nomanifest.zip")));
}

TEST_F(PluginArchive, ManifestProblemsAreReportedNotThrown) {
    ManifestFields fields;
    writeFile(work("notzip.bin"), "this is not a zip archive");
    EXPECT_NE("", readPayloadManifest(work("notzip.bin"), 25, fields));

    const std::string tree = makeTree();
    writeFile(tree + "/manifest", "plugin_id = \"unterminated;\n");
    size_t count = 0;
    ASSERT_EQ("", packPluginTree(tree, work("broken.zip"), count));
    const std::string size = std::to_string(testsupport::readFile(work("broken.zip")).size());
    EXPECT_NE("", readPayloadManifest(work("broken.zip"), std::stoull(size), fields));
}
