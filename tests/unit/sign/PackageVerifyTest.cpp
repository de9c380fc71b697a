#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <set>
#include <string>
#include <vector>

#include "sign/PackageFormat.h"
#include "sign/PackageSign.h"
#include "storage/UniqueFd.h"
#include "unit/sign/SignFixture.h"

using namespace packagesign;
using signtest::exists;
using testsupport::readFile;
using testsupport::writeFile;

namespace {

std::string samplePayload(size_t size) {
    std::string payload;
    for (size_t i = 0; i < size; ++i) {
        payload.push_back(static_cast<char>((i * 131 + 7) % 251));
    }
    return payload;
}

std::vector<std::string> directoryEntries(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(dir)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

class PackageVerify : public signtest::SignFixture {};

}  // namespace

TEST_F(PackageVerify, RoundTripOfBothSignTypesWritesPayloadAndSignerCertificate) {
    const std::string payload = samplePayload(200000);  // several stream chunks
    for (const auto& [signer, type] : {std::make_pair("official", 1), std::make_pair("developer", 0)}) {
        const std::string package = makePackage(payload, signer, type);
        EXPECT_EQ(type, getSignType(package));
        const std::string out = work(std::string(signer) + ".zip");
        const std::string cert = work(std::string(signer) + ".cert");
        ASSERT_EQ(kOk, verifyPackage(package, out, cert, ca()));
        EXPECT_EQ(payload, readFile(out));
        EXPECT_EQ(readFile(pki(std::string(signer) + ".pem")), readFile(cert));

        PackageHeader header;
        ASSERT_EQ(kOk, readPackageHeader(package, header));
        EXPECT_EQ(payload.size(), header.payloadSize);
        EXPECT_NE(std::string::npos, header.signerSubject.find(signer == std::string("official") ? "Official Signer"
                                                                                                 : "Developer Signer"));

        // Through descriptors: the payload appended to a given file, or left in place.
        const datacenter::UniqueFd in(::open(package.c_str(), O_RDONLY | O_CLOEXEC));
        const datacenter::UniqueFd copy(::open(work("").c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
        for (const int payloadFd : {copy.get(), -1}) {
            VerifiedPackage verified;
            ASSERT_EQ(kOk, verifyPackageFd(in.get(), payloadFd, ca(), verified));
            EXPECT_EQ(type, verified.signType);
            EXPECT_EQ(payload.size(), verified.payloadSize);
            EXPECT_EQ(readFile(pki(std::string(signer) + ".pem")), verified.signerPem);
        }
        EXPECT_EQ(payload, testsupport::readFd(copy.get()));
        EXPECT_EQ(0, ::lseek(in.get(), 0, SEEK_CUR));  // read by offset only
    }
}

TEST_F(PackageVerify, CheckWithoutPayloadAndChainCertificatesInsideThePackage) {
    writeFile(work("p.zip"), samplePayload(1000));
    // The CA itself carried as a chain certificate is part of the verified chain.
    ASSERT_EQ(kOk, sign("developer", 0, work("p.zip"), work("chained.qpk"), ca()));
    EXPECT_EQ(kOk, checkPackage(work("chained.qpk"), std::string(), ca()));
    // A carried certificate that plays no part in the chain is refused.
    ASSERT_EQ(kOk, sign("developer", 0, work("p.zip"), work("extra.qpk"), pki("other-ca.pem")));
    EXPECT_EQ(kUntrustedCertificate, checkPackage(work("extra.qpk"), std::string(), ca()));
}

TEST_F(PackageVerify, CertificateProblemsHaveTheirOwnCodes) {
    const std::string payload = samplePayload(5000);
    EXPECT_EQ(kUntrustedCertificate, verifyPackage(makePackage(payload, "untrusted", 1), work("u.zip"), "", ca()));
    EXPECT_EQ(kExpiredCertificate, verifyPackage(makePackage(payload, "expired", 0), work("e.zip"), "", ca()));
    // Checked against a CA that did not issue the signer.
    EXPECT_EQ(kUntrustedCertificate, verifyPackage(makePackage(payload), work("o.zip"), "", pki("other-ca.pem")));
    EXPECT_EQ(kUnreadableFile, verifyPackage(makePackage(payload), work("m.zip"), "", work("missing-ca.pem")));
    for (const char* out : {"u.zip", "e.zip", "o.zip", "m.zip"}) {
        EXPECT_FALSE(exists(work(out))) << out;
    }
}

TEST_F(PackageVerify, SignerWithoutCodeSigningUsageIsRefusedWhenSigningAndVerifying) {
    writeFile(work("p.zip"), samplePayload(100));
    EXPECT_EQ(kBadArgument, sign("nocodesign", 1, work("p.zip"), work("n.qpk")));
    EXPECT_FALSE(exists(work("n.qpk")));

    // A key that does not belong to the certificate, an unknown sign type, a missing payload.
    SignRequest request;
    request.payloadPath = work("p.zip");
    request.packagePath = work("mismatch.qpk");
    request.keyPath = pki("official.key");
    request.certPath = pki("developer.pem");
    EXPECT_EQ(kBadArgument, signPackage(request));
    request.certPath = pki("official.pem");
    request.signType = 2;
    EXPECT_EQ(kBadArgument, signPackage(request));
    request.signType = 1;
    request.payloadPath = work("missing.zip");
    EXPECT_EQ(kUnreadableFile, signPackage(request));
    EXPECT_FALSE(exists(work("mismatch.qpk")));
}

TEST_F(PackageVerify, FilesThatAreNotSignedPackagesAreRefused) {
    const std::string package = makePackage(samplePayload(3000));
    const std::string bytes = readFile(package);
    writeFile(work("empty.qpk"), "");
    writeFile(work("truncated.qpk"), bytes.substr(0, bytes.size() - 1));
    writeFile(work("no-trailer.qpk"), bytes.substr(0, bytes.size() - kTrailerSize));
    writeFile(work("appended.qpk"), bytes + "x");
    writeFile(work("prefixed.qpk"), "x" + bytes);
    writeFile(work("plain.zip"), readFile(work("payload-1.zip")));
    for (const char* name :
         {"empty.qpk", "truncated.qpk", "no-trailer.qpk", "appended.qpk", "prefixed.qpk", "plain.zip"}) {
        EXPECT_LT(getSignType(work(name)), 0) << name;
        EXPECT_NE(kOk, verifyPackage(work(name), work("out.zip"), work("cert"), ca())) << name;
        EXPECT_FALSE(exists(work("out.zip"))) << name;
        const datacenter::UniqueFd in(::open(work(name).c_str(), O_RDONLY | O_CLOEXEC));
        VerifiedPackage verified;
        EXPECT_NE(kOk, verifyPackageFd(in.get(), -1, ca(), verified)) << name;
        EXPECT_EQ(-1, verified.signType) << name;
        EXPECT_EQ("", verified.signerPem) << name;
    }
    EXPECT_EQ(kNotPackage, verifyPackage(work("empty.qpk"), work("out.zip"), "", ca()));
    EXPECT_EQ(kUnreadableFile, getSignType(work("missing.qpk")));
    EXPECT_EQ(kUnreadableFile, verifyPackage(work("missing.qpk"), work("out.zip"), "", ca()));
    EXPECT_EQ(kUnreadableFile, verifyPackage(work(""), work("out.zip"), "", ca()));  // a directory
    EXPECT_FALSE(exists(work("cert")));
}

TEST_F(PackageVerify, FlippedPayloadBytesAreRefusedAndLeaveNoFileBehind) {
    // Every byte of signature and trailer is the end-to-end SignTamper test;
    // here a spread of payload positions across several stream chunks.
    const size_t payloadSize = 70000;
    const std::string good = readFile(makePackage(samplePayload(payloadSize)));
    std::set<size_t> positions{payloadSize - 1};
    for (size_t i = 0; i < payloadSize; i += 4999) {
        positions.insert(i);
    }
    expectEveryFlipRefused(good, positions, {0x01, 0xff});
    // Only the inputs remain: no temporary payload files either.
    const std::vector<std::string> entries = directoryEntries(work(""));
    EXPECT_EQ((std::set<std::string>{"payload-1.zip", "package-1.qpk", "flipped.qpk"}),
              std::set<std::string>(entries.begin(), entries.end()));
}

TEST_F(PackageVerify, PayloadAndSignatureOfDifferentPackagesDoNotCombine) {
    const std::string a = readFile(makePackage(samplePayload(4096)));
    std::string otherPayload = samplePayload(4096);
    otherPayload[100] = 'Z';
    const std::string b = readFile(makePackage(otherPayload));
    // Payload of b, signature and trailer of a: same sizes, different digest.
    writeFile(work("mixed.qpk"), b.substr(0, 4096) + a.substr(4096));
    EXPECT_EQ(kBadSignature, verifyPackage(work("mixed.qpk"), work("out.zip"), "", ca()));
    EXPECT_FALSE(exists(work("out.zip")));
}

TEST_F(PackageVerify, FailureRemovesAStalePayloadAndWriteFailuresAreReported) {
    const std::string package = makePackage(samplePayload(100));
    writeFile(work("stale.zip"), "old payload");
    writeFile(work("junk.qpk"), "not a package at all, but long enough for a trailer");
    EXPECT_NE(kOk, verifyPackage(work("junk.qpk"), work("stale.zip"), "", ca()));
    EXPECT_FALSE(exists(work("stale.zip")));

    EXPECT_EQ(kWriteFailed, verifyPackage(package, work("no-such-dir/out.zip"), "", ca()));
    EXPECT_EQ(kWriteFailed, verifyPackage(package, "", "", ca()));
    EXPECT_EQ(kWriteFailed, verifyPackage(package, work("out.zip"), work("no-such-dir/cert"), ca()));
    EXPECT_FALSE(exists(work("out.zip")));
    // A failure never deletes the package, even when it is named as the payload.
    EXPECT_EQ(kUntrustedCertificate, verifyPackage(package, package, "", pki("other-ca.pem")));
    EXPECT_TRUE(exists(package));
}
