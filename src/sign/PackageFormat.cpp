#include "sign/PackageFormat.h"

#include <algorithm>
#include <cstring>

namespace packagesign {

namespace {

const char kTrailerMagic[8] = {'Q', 'P', 'K', 'S', 'I', 'G', '\r', '\n'};
const char kDescriptorMagic[8] = {'Q', 'P', 'K', 'D', 'E', 'S', 'C', '1'};

void putBigEndian(std::string& out, uint64_t value, int bytes) {
    for (int shift = (bytes - 1) * 8; shift >= 0; shift -= 8) {
        out.push_back(static_cast<char>((value >> shift) & 0xff));
    }
}

uint64_t getBigEndian(const unsigned char* in, int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) {
        value = (value << 8) | in[i];
    }
    return value;
}

}  // namespace

std::string encodeTrailer(const Trailer& trailer) {
    std::string out;
    putBigEndian(out, trailer.payloadSize, 8);
    putBigEndian(out, trailer.signatureSize, 4);
    putBigEndian(out, kFormatVersion, 4);
    out.append(kTrailerMagic, sizeof kTrailerMagic);
    return out;
}

bool decodeTrailer(const unsigned char* bytes, uint64_t fileSize, Trailer& trailer) {
    if (fileSize < kTrailerSize || std::memcmp(bytes + 16, kTrailerMagic, sizeof kTrailerMagic) != 0 ||
        getBigEndian(bytes + 12, 4) != kFormatVersion) {
        return false;
    }
    const uint64_t payloadSize = getBigEndian(bytes, 8);
    const uint64_t signatureSize = getBigEndian(bytes + 8, 4);
    if (signatureSize < kMinSignatureSize || signatureSize > kMaxSignatureSize) {
        return false;
    }
    // Compare by subtraction so that no sum can overflow.
    const uint64_t rest = fileSize - kTrailerSize;
    if (signatureSize > rest || payloadSize != rest - signatureSize) {
        return false;
    }
    trailer.payloadSize = payloadSize;
    trailer.signatureSize = static_cast<uint32_t>(signatureSize);
    return true;
}

std::string encodeDescriptor(const Descriptor& descriptor) {
    std::string out(kDescriptorMagic, sizeof kDescriptorMagic);
    putBigEndian(out, kFormatVersion, 4);
    putBigEndian(out, static_cast<uint32_t>(descriptor.signType), 4);
    putBigEndian(out, descriptor.payloadSize, 8);
    out.append(reinterpret_cast<const char*>(descriptor.digest.data()), descriptor.digest.size());
    return out;
}

bool decodeDescriptor(const std::string& bytes, Descriptor& descriptor) {
    if (bytes.size() != kDescriptorSize || bytes.compare(0, 8, kDescriptorMagic, 8) != 0) {
        return false;
    }
    const auto* raw = reinterpret_cast<const unsigned char*>(bytes.data());
    if (getBigEndian(raw + 8, 4) != kFormatVersion) {
        return false;
    }
    const uint64_t signType = getBigEndian(raw + 12, 4);
    if (signType != 0 && signType != 1) {
        return false;
    }
    Descriptor parsed;
    parsed.signType = static_cast<int>(signType);
    parsed.payloadSize = getBigEndian(raw + 16, 8);
    std::copy(raw + 24, raw + 24 + kDigestSize, parsed.digest.begin());
    // An all-zero digest is what an unfilled field looks like: never accept it.
    if (std::all_of(parsed.digest.begin(), parsed.digest.end(), [](unsigned char b) { return b == 0; })) {
        return false;
    }
    descriptor = parsed;
    return true;
}

}  // namespace packagesign
