// What the installer relies on beyond the two classic calls: the sign type
// of the bytes that were verified, and words for every result.
#include <set>

#include "unit/sign/SignFixture.h"

using signtest::SignFixture;

class PackageSource : public SignFixture {};

TEST_F(PackageSource, TheTypeComesFromTheVerifiedDescriptor) {
    for (const int type : {packagesign::kSignTypeDeveloper, packagesign::kSignTypeOfficial}) {
        const std::string package = makePackage("zip bytes", type == 1 ? "official" : "developer", type);
        int verified = -2;
        EXPECT_EQ(packagesign::kOk,
                  packagesign::verifyPackageAndType(package, work("payload.zip"), "", ca(), verified));
        EXPECT_EQ(type, verified);
    }
    // A package that does not verify has no type, and leaves no payload.
    const std::string untrusted = makePackage("zip bytes", "developer", 1);
    int verified = -2;
    EXPECT_EQ(packagesign::kUntrustedCertificate,
              packagesign::verifyPackageAndType(untrusted, work("p2.zip"), "", pki("developer.pem"), verified));
    EXPECT_EQ(-1, verified);
    EXPECT_FALSE(signtest::exists(work("p2.zip")));
}

TEST_F(PackageSource, EveryResultCodeHasItsOwnWords) {
    std::set<std::string> texts;
    for (int code = packagesign::kBadArgument; code <= packagesign::kOk; ++code) {
        texts.insert(packagesign::describeResult(code));
    }
    EXPECT_EQ(8u, texts.size());
    EXPECT_EQ(texts.end(), texts.find("unknown error"));
}
