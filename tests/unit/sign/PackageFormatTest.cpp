#include <gtest/gtest.h>

#include <string>

#include "sign/PackageFormat.h"

using namespace packagesign;

namespace {

Trailer parse(const std::string& bytes, uint64_t fileSize, bool& ok) {
    Trailer trailer;
    ok = decodeTrailer(reinterpret_cast<const unsigned char*>(bytes.data()), fileSize, trailer);
    return trailer;
}

std::string trailerFor(uint64_t payloadSize, uint32_t signatureSize) {
    Trailer trailer;
    trailer.payloadSize = payloadSize;
    trailer.signatureSize = signatureSize;
    return encodeTrailer(trailer);
}

Descriptor sampleDescriptor() {
    Descriptor descriptor;
    descriptor.signType = 1;
    descriptor.payloadSize = 0x0102030405060708ULL;
    for (size_t i = 0; i < descriptor.digest.size(); ++i) {
        descriptor.digest[i] = static_cast<unsigned char>(i + 1);
    }
    return descriptor;
}

}  // namespace

TEST(PackageFormat, TrailerLengthsMustFillTheFileExactly) {
    bool ok = false;
    const Trailer trailer = parse(trailerFor(1000, 500), 1000 + 500 + kTrailerSize, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(1000u, trailer.payloadSize);
    EXPECT_EQ(500u, trailer.signatureSize);

    parse(trailerFor(0, 1), 1 + kTrailerSize, ok);
    EXPECT_TRUE(ok) << "an empty payload still has a signature";
    parse(trailerFor(1000, 500), 1000 + 500 + kTrailerSize + 1, ok);
    EXPECT_FALSE(ok) << "a gap or trailing byte";
    parse(trailerFor(1000, 500), 1000 + 500 + kTrailerSize - 1, ok);
    EXPECT_FALSE(ok) << "lengths past the file";
    parse(trailerFor(1000, 0), 1000 + kTrailerSize, ok);
    EXPECT_FALSE(ok) << "empty signature";
    parse(trailerFor(0, kMaxSignatureSize), kMaxSignatureSize + kTrailerSize, ok);
    EXPECT_TRUE(ok);
    parse(trailerFor(0, kMaxSignatureSize + 1), kMaxSignatureSize + 1 + kTrailerSize, ok);
    EXPECT_FALSE(ok) << "signature above its limit";
    parse(trailerFor(UINT64_MAX - 10, 20), 30 + kTrailerSize, ok);
    EXPECT_FALSE(ok) << "a payload size that would overflow a sum";
    parse(trailerFor(0, 8), 4, ok);
    EXPECT_FALSE(ok) << "file shorter than a trailer";
}

TEST(PackageFormat, DescriptorRoundTripsAndRefusesIncompleteContent) {
    const std::string encoded = encodeDescriptor(sampleDescriptor());
    ASSERT_EQ(kDescriptorSize, encoded.size());
    Descriptor decoded;
    ASSERT_TRUE(decodeDescriptor(encoded, decoded));
    EXPECT_EQ(1, decoded.signType);
    EXPECT_EQ(0x0102030405060708ULL, decoded.payloadSize);
    EXPECT_EQ(sampleDescriptor().digest, decoded.digest);

    EXPECT_FALSE(decodeDescriptor(encoded.substr(0, kDescriptorSize - kDigestSize), decoded)) << "missing digest";
    EXPECT_FALSE(decodeDescriptor(encoded.substr(0, kDescriptorSize - 1), decoded));
    EXPECT_FALSE(decodeDescriptor(encoded + '\0', decoded));
    EXPECT_FALSE(decodeDescriptor(std::string(), decoded));

    Descriptor zero = sampleDescriptor();
    zero.digest.fill(0);
    EXPECT_FALSE(decodeDescriptor(encodeDescriptor(zero), decoded)) << "an unfilled digest is no digest";
    Descriptor unknownType = sampleDescriptor();
    unknownType.signType = 2;
    EXPECT_FALSE(decodeDescriptor(encodeDescriptor(unknownType), decoded));
    std::string badMagic = encoded;
    badMagic[0] = 'X';
    EXPECT_FALSE(decodeDescriptor(badMagic, decoded));
    std::string badVersion = encoded;
    badVersion[11] = 2;
    EXPECT_FALSE(decodeDescriptor(badVersion, decoded));
}
