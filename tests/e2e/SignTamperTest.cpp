// Every single changed byte of a package's signature and trailer, with
// several change patterns, makes verification fail. The CMS structure has
// fields that its signature does not cover (version numbers, algorithm sets,
// carried certificates); this is the test that they are pinned down too.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "unit/sign/SignFixture.h"

namespace {

class SignTamper : public signtest::SignFixture {};

}  // namespace

TEST_F(SignTamper, EveryByteOfSignatureAndTrailerIsCovered) {
    const std::string payload(3000, 'p');
    for (const char* signer : {"official", "developer"}) {
        const std::string good = testsupport::readFile(makePackage(payload, signer));
        std::set<size_t> positions;
        for (size_t i = payload.size(); i < good.size(); ++i) {
            positions.insert(i);
        }
        expectEveryFlipRefused(good, positions, {0x01, 0x02, 0x03, 0x20, 0x80, 0xff});
    }
}

TEST_F(SignTamper, CarriedChainCertificatesAreCoveredToo) {
    testsupport::writeFile(work("p.zip"), std::string(500, 'q'));
    ASSERT_EQ(packagesign::kOk, sign("official", 1, work("p.zip"), work("chained.qpk"), ca()));
    const std::string good = testsupport::readFile(work("chained.qpk"));
    std::set<size_t> positions;
    for (size_t i = 500; i < good.size(); ++i) {
        positions.insert(i);
    }
    expectEveryFlipRefused(good, positions, {0x01, 0xff});
}
