#pragma once
// Byte layout of a .qpk package (all integers big-endian):
//
//   payload (payloadSize bytes) | CMS SignedData, DER (signatureSize bytes) | trailer (24 bytes)
//
// trailer:    u64 payloadSize | u32 signatureSize | u32 format version | 8-byte magic "QPKSIG\r\n"
// descriptor: 8-byte magic "QPKDESC1" | u32 format version | u32 sign type | u64 payloadSize
//             | 32-byte SHA-256 of the payload            (56 bytes, the CMS's signed content)
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace packagesign {

constexpr uint32_t kFormatVersion = 1;
constexpr size_t kTrailerSize = 24;
constexpr size_t kDescriptorSize = 56;
constexpr size_t kDigestSize = 32;
constexpr size_t kMinSignatureSize = 1;
constexpr size_t kMaxSignatureSize = 64 * 1024;

struct Trailer {
    uint64_t payloadSize = 0;
    uint32_t signatureSize = 0;
};

struct Descriptor {
    int signType = -1;
    uint64_t payloadSize = 0;
    std::array<unsigned char, kDigestSize> digest{};
};

std::string encodeTrailer(const Trailer& trailer);

// Accepts the last kTrailerSize bytes of a file of `fileSize` bytes when magic
// and version match, the signature size lies within its limits and payload,
// signature and trailer fill the file exactly (no gap, no trailing bytes).
bool decodeTrailer(const unsigned char* bytes, uint64_t fileSize, Trailer& trailer);

std::string encodeDescriptor(const Descriptor& descriptor);

// Accepts exactly kDescriptorSize bytes with the right magic and version, a
// known sign type and a digest that is not all zero.
bool decodeDescriptor(const std::string& bytes, Descriptor& descriptor);

}  // namespace packagesign
