// Tampered packages never install. Every byte position of a small signed
// package is changed once, and 1,000 seeded random positions of a 20 MB one:
// each installation must end with 2508, leave no file behind (no payload, no
// plugin directory, no working files) and record no plugin. The sweeps drive
// the library in-process; a sample of each goes through the installplugin
// binary as the firmware runs it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "Plugin/PluginManager.h"
#include "common/ApiErrorCode.h"
#include "common/Singleton.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"
#include "unit/Plugin/PluginTestSupport.h"

using testsupport::isListed;

namespace {

const char* const kId = "5017400000000000100";

// Every path below the user disk, sorted: what a trial must leave as it found.
std::string userdiskTree() {
    return testsupport::runCommand("cd " + testsupport::underRoot("/userdisk") + " && find . | LC_ALL=C sort").output;
}

// Changes the byte at `offset` of the file in place and changes it back when done.
class ByteFlip {
public:
    ByteFlip(const std::string& path, uint64_t offset) : fd_(open(path.c_str(), O_RDWR)), offset_(offset) {
        EXPECT_GE(fd_, 0);
        EXPECT_EQ(1, pread(fd_, &original_, 1, offset_));
        const unsigned char changed = original_ ^ 0xff;
        EXPECT_EQ(1, pwrite(fd_, &changed, 1, offset_));
    }
    ~ByteFlip() {
        EXPECT_EQ(1, pwrite(fd_, &original_, 1, offset_));
        close(fd_);
    }

private:
    int fd_;
    uint64_t offset_;
    unsigned char original_ = 0;
};

class TamperSweep : public ::testing::Test {
protected:
    // One in-process installation of the package as it is now on disk.
    // Returns the number of broken guarantees (each reported).
    int trialInProcess(const std::string& package, uint64_t offset) {
        const ApiErrorCode code = Singleton<PluginManager>::instance()->installFromLocal(package, true);
        return check(code, offset);
    }

    // The same through the installplugin binary.
    int trialThroughBinary(const std::string& package, uint64_t offset) {
        const std::string outcome =
            testsupport::installOutcome(testsupport::runApp("installplugin", "-f " + package + " -k").output);
        const ApiErrorCode code =
            outcome == "installplugin failed. code is 2508\n" ? API_VERIFY_SIGN_FAILED : API_SUCCESS;
        return check(code, offset);
    }

    int check(ApiErrorCode code, uint64_t offset) {
        int broken = 0;
        if (code != API_VERIFY_SIGN_FAILED) {
            ADD_FAILURE() << "byte " << offset << ": code " << code;
            ++broken;
        }
        if (userdiskTree() != tree_) {
            ADD_FAILURE() << "byte " << offset << ": files left behind:\n" << userdiskTree();
            ++broken;
        }
        if (isListed(kId)) {
            ADD_FAILURE() << "byte " << offset << ": plugin recorded";
            ++broken;
        }
        return broken;
    }

    // The manager and its store make their own files on first use; the
    // baseline is taken after that.
    void takeBaseline() {
        isListed(kId);
        tree_ = userdiskTree();
    }

    testsupport::PackageFactory factory_;
    std::string tree_;
};

uint64_t fileSize(const std::string& path) {
    return testsupport::readFile(path).size();
}

}  // namespace

TEST_F(TamperSweep, EveryByteOfASmallPackage) {
    const std::string package = factory_.build(testsupport::PackageSpec(), "small");
    const uint64_t size = fileSize(package);
    // The untouched package installs: the sweep is not refusing everything.
    takeBaseline();
    const std::string original = testsupport::readFile(package);
    testsupport::writeFile(testsupport::root() + "/small-copy.qpk", original);
    ASSERT_EQ(API_SUCCESS,
              Singleton<PluginManager>::instance()->installFromLocal(testsupport::root() + "/small-copy.qpk", true));
    ASSERT_TRUE(isListed(kId));
    // From here on the plugin is not installed: a fresh root of the same shape.
    testsupport::runCommand("rm -rf " + testsupport::underRoot("/userdisk/appdata/") + kId + " " +
                            testsupport::underRoot("/userdisk/appdata//app_infos/") + kId + ".manifest");
    testsupport::runCommand("touch " + testsupport::underRoot("/userdisk/appdata//app_infos/hasUpdated"));
    ASSERT_FALSE(isListed(kId));
    takeBaseline();

    int broken = 0;
    uint64_t throughBinary = 0;
    for (uint64_t offset = 0; offset < size; ++offset) {
        ByteFlip flip(package, offset);
        broken += trialInProcess(package, offset);
        // Every 16th position also through the binary.
        if (offset % 16 == 0) {
            broken += trialThroughBinary(package, offset);
            ++throughBinary;
        }
        ASSERT_LT(broken, 10) << "stopping after ten broken guarantees";
    }
    EXPECT_EQ(original, testsupport::readFile(package));
    printf("tamper sweep (small package): %llu positions in-process, %llu through installplugin, %d failures\n",
           static_cast<unsigned long long>(size), static_cast<unsigned long long>(throughBinary), broken);
    EXPECT_EQ(0, broken);
}

TEST_F(TamperSweep, ThousandRandomBytesOfATwentyMegabytePackage) {
    const char* seedText = getenv("TAMPER_SEED");
    const unsigned seed = seedText ? static_cast<unsigned>(strtoul(seedText, nullptr, 10)) : std::random_device()();
    printf("tamper sweep seed: %u (TAMPER_SEED=%u repeats this run)\n", seed, seed);
    std::mt19937_64 random(seed);

    // Random content does not compress, so the package is as large as its file.
    std::string content(20 * 1024 * 1024, '\0');
    for (char& byte : content) {
        byte = static_cast<char>(random() & 0xff);
    }
    testsupport::PackageSpec spec;
    spec.files["data/blob"] = content;
    content.clear();
    const std::string package = factory_.build(spec, "large");
    const uint64_t size = fileSize(package);
    ASSERT_GT(size, 20u * 1024 * 1024);
    takeBaseline();

    std::uniform_int_distribution<uint64_t> position(0, size - 1);
    int broken = 0;
    const int kTrials = 1000;
    for (int trial = 0; trial < kTrials; ++trial) {
        const uint64_t offset = position(random);
        ByteFlip flip(package, offset);
        broken += trial % 50 == 0 ? trialThroughBinary(package, offset) : trialInProcess(package, offset);
        ASSERT_LT(broken, 10) << "stopping after ten broken guarantees";
    }
    printf("tamper sweep (20 MB package): %d positions, %d through installplugin, %d failures\n", kTrials, kTrials / 50,
           broken);
    EXPECT_EQ(0, broken);
}
