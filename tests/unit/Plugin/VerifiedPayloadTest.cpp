#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <functional>
#include <string>

#include "Plugin/installAction/PackageFiles.h"
#include "Plugin/installAction/VerifiedPayload.h"
#include "sign/PackageSign.h"
#include "support/PackageFactory.h"
#include "support/TestSupport.h"

using testsupport::readFile;
using testsupport::writeFile;

namespace {

namespace fs = boost::filesystem;

class VerifiedPayloadTest : public ::testing::Test {
protected:
    void SetUp() override {
        staging_ = testsupport::makeScratchDir("staging");
        ::chmod(staging_.c_str(), 0700);
        testsupport::PackageSpec spec;
        spec.id = "payload.test";
        package_ = factory_.build(spec, "verified-payload");
    }

    // The names in the staging folder: an unnamed payload leaves none.
    size_t stagedNames() const {
        return static_cast<size_t>(std::distance(fs::directory_iterator(staging_), fs::directory_iterator()));
    }

    testsupport::PackageFactory factory_;
    std::string staging_;
    std::string package_;
};

}  // namespace

TEST_F(VerifiedPayloadTest, ACopiedPayloadHasNoNameAndIsTheVerifiedBytesWhateverHappensToThePackage) {
    packagesign::PackageHeader header;
    ASSERT_EQ(packagesign::kOk, packagesign::readPackageHeader(package_, header));
    const std::string payloadBytes = readFile(package_).substr(0, header.payloadSize);

    VerifiedPayload payload;
    ASSERT_EQ(packagesign::kOk, payload.copyFrom(package_, staging_));
    struct stat st;
    ASSERT_EQ(0, ::fstat(payload.fd(), &st));
    EXPECT_EQ(0u, st.st_nlink);
    EXPECT_EQ(0u, stagedNames());
    EXPECT_EQ(header.payloadSize, payload.size());
    EXPECT_EQ(0, payload.signType());
    EXPECT_EQ(readFile(factory_.pkiDir() + "/developer.pem"), payload.signerPem());

    // The package rewritten in place after the check changes nothing unpacked.
    writeFile(package_, std::string(readFile(package_).size(), 'x'));
    EXPECT_EQ(payloadBytes, testsupport::readFd(payload.fd()));
    EXPECT_EQ("payload.test", PackageFiles::sGetIdFromPayload(payload.fd(), payload.size(), "payload"));
    const std::string dest = testsupport::makeScratchDir("copied-out");
    ASSERT_TRUE(PackageFiles::sUnzipPayload(payload.fd(), payload.size(), "payload", dest));
    EXPECT_EQ("app", readFile(dest + "/bin/app"));
    payload.reset();
    EXPECT_FALSE(payload.valid());
}

TEST_F(VerifiedPayloadTest, ADownloadIsVerifiedWhereItIsAndUnpackedUpToItsPayloadOnly) {
    datacenter::UniqueFd download = VerifiedPayload::sCreateUnnamed(staging_);
    ASSERT_TRUE(download.valid());
    const std::string bytes = readFile(package_);
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::pwrite(download.get(), bytes.data(), bytes.size(), 0));
    EXPECT_EQ(0u, stagedNames());

    VerifiedPayload payload;
    ASSERT_EQ(packagesign::kOk, payload.verifyInPlace(std::move(download)));
    EXPECT_LT(payload.size(), bytes.size());  // signature and trailer follow the payload
    EXPECT_EQ(bytes.size(), static_cast<size_t>(fs::file_size(package_)));
    const std::string dest = testsupport::makeScratchDir("in-place-out");
    ASSERT_TRUE(PackageFiles::sUnzipPayload(payload.fd(), payload.size(), "download", dest));
    EXPECT_EQ("<html/>", readFile(dest + "/www/index.html"));
    EXPECT_EQ("payload.test", PackageFiles::sGetIdFromPayload(payload.fd(), payload.size(), "download"));
}

TEST_F(VerifiedPayloadTest, RefusalsLeaveNothingBehindAndNeverHang) {
    const std::string bytes = readFile(package_);
    std::string flipped = bytes;
    flipped[10] = static_cast<char>(flipped[10] ^ 0x20);
    writeFile(staging_ + "-flipped.qpk", flipped);
    writeFile(staging_ + "-junk.qpk", "no package here, but long enough for a trailer");
    ::mkfifo((staging_ + "-fifo.qpk").c_str(), 0600);
    struct Row {
        const char* name;
        std::string package;
        std::function<void()> prepare;  // what is done to the staging folder first
        int code;
    };
    const std::string open = staging_ + "-open";
    const std::string linked = staging_ + "-linked";
    const Row rows[] = {
        {"a payload byte changed", staging_ + "-flipped.qpk", [] {}, packagesign::kBadSignature},
        {"not a package", staging_ + "-junk.qpk", [] {}, packagesign::kNotPackage},
        {"a FIFO given as the package", staging_ + "-fifo.qpk", [] {}, packagesign::kUnreadableFile},
        {"a missing package", staging_ + "-missing.qpk", [] {}, packagesign::kUnreadableFile},
        {"a staging folder others can enter", package_, [&] { ::chmod(staging_.c_str(), 0755); },
         packagesign::kWriteFailed},
        {"a link in place of the staging folder", package_,
         [&] {
             fs::rename(staging_, linked);
             fs::create_directory_symlink(linked, staging_);
         },
         packagesign::kWriteFailed},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        row.prepare();
        VerifiedPayload payload;
        EXPECT_EQ(row.code, payload.copyFrom(row.package, staging_));
        EXPECT_FALSE(payload.valid());
        EXPECT_EQ(0u, stagedNames());
    }
    // A refused download reports the type it claims, never a verified one.
    ::chmod(linked.c_str(), 0700);
    datacenter::UniqueFd download = VerifiedPayload::sCreateUnnamed(linked);
    ASSERT_TRUE(download.valid());
    ASSERT_EQ(static_cast<ssize_t>(flipped.size()), ::pwrite(download.get(), flipped.data(), flipped.size(), 0));
    VerifiedPayload payload;
    EXPECT_EQ(packagesign::kBadSignature, payload.verifyInPlace(std::move(download)));
    EXPECT_EQ(0, payload.claimedSignType());
    EXPECT_EQ(-1, payload.signType());
    EXPECT_FALSE(payload.valid());
}
