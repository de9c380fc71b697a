#pragma once
// Shared set-up of the package-signing tests: a throw-away PKI made by
// scripts/make-test-pki in a scratch directory under the test root, and small
// file helpers. Header-only so that unit and end-to-end tests can share it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>
#include <string>

#include "sign/PackageSign.h"
#include "support/TestSupport.h"

namespace signtest {

inline bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

class SignFixture : public ::testing::Test {
protected:
    void SetUp() override {
        pki_ = testsupport::makeScratchDir("pki");
        const auto made =
            testsupport::runCommand("bash " + testsupport::sourceDir() + "/scripts/make-test-pki " + pki_);
        ASSERT_EQ(0, made.exitStatus) << "make-test-pki failed";
        work_ = testsupport::makeScratchDir("work");
    }

    std::string pki(const std::string& name) const { return pki_ + "/" + name; }
    std::string work(const std::string& name) const { return work_ + "/" + name; }
    std::string ca() const { return pki("ca.pem"); }

    // Signs `payloadPath` with the PKI's signer `signer` (e.g. "official") into `packagePath`.
    int sign(const std::string& signer, int type, const std::string& payloadPath, const std::string& packagePath,
             const std::string& chain = std::string()) const {
        packagesign::SignRequest request;
        request.payloadPath = payloadPath;
        request.packagePath = packagePath;
        request.keyPath = pki(signer + ".key");
        request.certPath = pki(signer + ".pem");
        request.chainPath = chain;
        request.signType = type;
        return packagesign::signPackage(request);
    }

    // A signed package around `payload`, returned by path.
    std::string makePackage(const std::string& payload, const std::string& signer = "official", int type = 1) {
        const std::string payloadPath = work("payload-" + std::to_string(++counter_) + ".zip");
        const std::string packagePath = work("package-" + std::to_string(counter_) + ".qpk");
        testsupport::writeFile(payloadPath, payload);
        EXPECT_EQ(packagesign::kOk, sign(signer, type, payloadPath, packagePath));
        return packagePath;
    }

    // Writes `good` with one byte changed (each position x each mask) and
    // checks that verification refuses it and leaves no payload file.
    void expectEveryFlipRefused(const std::string& good, const std::set<size_t>& positions,
                                const std::set<unsigned char>& masks) {
        const std::string flipped = work("flipped.qpk");
        const std::string out = work("flipped-out.zip");
        for (const size_t position : positions) {
            for (const unsigned char mask : masks) {
                std::string bad = good;
                bad[position] = static_cast<char>(bad[position] ^ mask);
                testsupport::writeFile(flipped, bad);
                ASSERT_NE(packagesign::kOk, verifyPackage(flipped, out, "", ca())) << "byte " << position;
                ASSERT_FALSE(exists(out)) << "byte " << position;
            }
        }
    }

private:
    std::string pki_;
    std::string work_;
    int counter_ = 0;
};

}  // namespace signtest
