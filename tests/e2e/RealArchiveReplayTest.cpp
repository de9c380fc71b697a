// Real-world zip archives (../shared/realzip beside the source tree, taken
// from the test suites of other zip readers, each with its class in
// INDEX.tsv) replayed as plugin payloads: the archive's bytes plus a
// "manifest" entry (tests/data/realzip/replay.py), signed and installed by
// the installplugin binary into a fresh simulated root. Valid archives
// install with the files Python's zipfile extracts; broken, encrypted,
// unsupported and hostile ones are refused. The exceptions below are the ones
// docs/deviations.md gives with their reasons. The corpus is split into
// shards that run as separate cases; without it they skip.
#include <gtest/gtest.h>

#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem.hpp>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <vector>

#include "support/PackageFactory.h"
#include "support/TestSupport.h"

namespace fs = boost::filesystem;
using testsupport::PackageFactory;
using testsupport::PackageSpec;

namespace {

const int kShards = 4;

enum class Outcome { Refused, Installs, InstallsUnread };

// Archives whose outcome is not the one their class gives.
const std::map<std::string, Outcome> kExceptions = {
    // The end record gives the central directory a wrong size; libzip cannot read the directory then.
    {"go-test-badbase.zip", Outcome::Refused},
    {"go-test-baddirsz.zip", Outcome::Refused},
    // Shift-JIS names without the UTF-8 flag: a backslash there is the second byte of a character
    // (0x95 0x5C), not a separator, and a name holding a backslash is refused.
    {"libarchive-test_read_format_zip_filename_cp932.zip", Outcome::Refused},
    // Local headers name the entries differently from the central directory (Python refuses it too).
    {"libarchive-test_read_format_zip_7075_utf8_paths.zip", Outcome::Refused},
    // Junk after the end record, as in the valid libzip-junk-at-end.zip; it is no part of the archive.
    {"libzip-testextrabytes.zip", Outcome::Installs},
    {"libzip-incons-archive-comment-shorter.zip", Outcome::Installs},
    // bzip2 is read (libzip is built with it).
    {"libzip-testbzip2.zip", Outcome::Installs},
    {"libarchive-test_read_format_zip_bzip2.zipx", Outcome::Installs},
    {"libarchive-test_read_format_zip_bzip2_multi.zipx", Outcome::Installs},
    // A byte between the central directory and the end record; Python's zipfile cannot read it.
    {"libzip-incons-gap-before-eocd.zip", Outcome::InstallsUnread},
};

struct Archive {
    std::string name;
    std::string kind;
};

std::string corpusDir() {
    return testsupport::sourceDir() + "/../shared/realzip";
}

std::vector<Archive> shardOf(int shard) {
    std::vector<Archive> archives;
    std::ifstream index(corpusDir() + "/INDEX.tsv");
    std::string line;
    std::getline(index, line);
    for (int n = 0; std::getline(index, line); ++n) {
        std::istringstream fields(line);
        Archive archive;
        std::getline(fields, archive.name, '\t');
        std::getline(fields, line, '\t');
        std::getline(fields, archive.kind, '\t');
        if (n % kShards == shard) {
            archives.push_back(archive);
        }
    }
    return archives;
}

Outcome expected(const Archive& archive) {
    const auto exception = kExceptions.find(archive.name);
    if (exception != kExceptions.end()) {
        return exception->second;
    }
    return archive.kind == "valid" ? Outcome::Installs : Outcome::Refused;
}

// The tree below `dir` without what the installer adds to a plugin's folder.
std::string pluginFiles(const std::string& dir) {
    std::istringstream all(testsupport::treeText(dir));
    std::string kept;
    for (std::string line; std::getline(all, line);) {
        const std::string path = line.substr(0, line.find(": "));
        if (path.compare(0, 4, "etc/") != 0 && path != "init_files.record" && path != "dev_cert") {
            kept += line.substr(0, 300) + "\n";
        }
    }
    return kept;
}

// The first lines that only one of two listings has, or "".
std::string difference(const std::string& reference, const std::string& installed) {
    std::set<std::string> left, right;
    boost::algorithm::split(left, reference, [](char c) { return c == '\n'; });
    boost::algorithm::split(right, installed, [](char c) { return c == '\n'; });
    std::string text;
    for (const std::string& line : left) {
        text += right.count(line) ? "" : "  Python: " + line.substr(0, 120) + "\n";
    }
    for (const std::string& line : right) {
        text += left.count(line) ? "" : "  installed: " + line.substr(0, 120) + "\n";
    }
    return text.empty() ? text : "its files differ from what Python's zipfile extracts:\n" + text.substr(0, 1000);
}

// Installs `package` into a fresh simulated root; "" when it installed as
// expected, otherwise what went wrong.
std::string replay(const Archive& archive, const std::string& package, const std::string& prepared,
                   const std::string& ca) {
    const std::string root = testsupport::makeScratchDir("root");
    testsupport::layOutRouter(root, ca);
    const testsupport::CommandResult result =
        testsupport::runCommand("DATACENTER_INSTALLPLUGIN_DELAY_MS=0 DATACENTER_ROOT=" + root + " timeout 120 " +
                                testsupport::buildDir() + "/apps/installplugin -f " + package + " 2>&1");
    const bool installed = result.output.find("installplugin succeed!\n") != std::string::npos;
    const Outcome outcome = expected(archive);
    std::string failure;
    if (installed != (outcome != Outcome::Refused)) {
        failure = installed ? "installed, but must be refused" : "refused, but must install";
    } else if (outcome == Outcome::Installs) {
        const std::string reference = prepared + "/" + archive.name + ".ref";
        if (fs::exists(reference + "-error")) {
            failure = "Python's zipfile cannot extract it: " + testsupport::readFile(reference + "-error");
        } else {
            failure = difference(pluginFiles(reference), pluginFiles(root + "/userdisk/appdata/" + PackageSpec().id));
        }
    }
    fs::remove_all(root);
    if (failure.empty()) {
        return failure;
    }
    return archive.name + " (" + archive.kind + "): " + failure + "\n" + result.output.substr(0, 2000) + "\n";
}

class RealArchives : public testing::TestWithParam<int> {};

}  // namespace

TEST_P(RealArchives, InstallWhenValidAndAreRefusedOtherwise) {
    if (!fs::exists(corpusDir() + "/INDEX.tsv")) {
        GTEST_SKIP() << "no real-world archives at " << corpusDir();
    }
    const std::vector<Archive> archives = shardOf(GetParam());
    ASSERT_FALSE(archives.empty());
    PackageFactory factory;
    const std::string prepared = testsupport::makeScratchDir("prepared");
    testsupport::writeFile(prepared + "/manifest", PackageFactory::manifestText(PackageSpec()));
    std::string names;
    for (const Archive& archive : archives) {
        names += " '" + archive.name + "'";
    }
    ASSERT_EQ(0, testsupport::runCommand("python3 " + testsupport::sourceDir() + "/tests/data/realzip/replay.py " +
                                         corpusDir() + " " + prepared + "/manifest " + prepared + names + " >/dev/null")
                     .exitStatus);
    std::string failures;
    std::map<std::string, int> passed;
    for (size_t i = 0; i < archives.size(); ++i) {
        const std::string package =
            factory.sign(prepared + "/" + archives[i].name + ".zip", 0, "developer", "archive-" + std::to_string(i));
        const std::string failure = replay(archives[i], package, prepared, factory.pkiDir() + "/ca.pem");
        failures += failure;
        passed[archives[i].kind] += failure.empty() ? 1 : 0;
    }
    std::string summary;
    for (const auto& kind : passed) {
        summary += " " + kind.first + " " + std::to_string(kind.second);
    }
    std::cout << "archives as expected:" << summary << " (of " << archives.size() << ")\n";
    EXPECT_TRUE(failures.empty()) << failures;
}

INSTANTIATE_TEST_SUITE_P(Shards, RealArchives, testing::Range(0, kShards));
