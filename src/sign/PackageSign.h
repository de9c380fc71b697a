#pragma once
// Signing and verification of .qpk plugin packages.
//
// A package is the payload (a zip archive) followed by a CMS signature and a
// fixed-size trailer; docs/qpk-format.md gives the layout byte by byte. The
// CMS signs a small descriptor that holds the sign type, the payload size and
// the payload's SHA-256, so none of them can change without breaking the
// signature.
#include <cstdint>
#include <string>

namespace packagesign {

// Result codes. 0 is success; every failure has its own negative value.
constexpr int kOk = 0;
constexpr int kUnreadableFile = -1;        // package (or CA/key/cert file) cannot be opened or read
constexpr int kNotPackage = -2;            // framing, lengths or descriptor are not those of a package
constexpr int kBadSignature = -3;          // CMS signature or payload digest does not match
constexpr int kUntrustedCertificate = -4;  // signer does not chain to the CA or lacks the signing usages
constexpr int kExpiredCertificate = -5;    // a certificate of the chain is outside its validity period
constexpr int kWriteFailed = -6;           // payload, certificate or package could not be written
constexpr int kBadArgument = -7;           // signing: unknown sign type, unusable key or certificate

// Sign types carried inside the signed descriptor.
constexpr int kSignTypeDeveloper = 0;
constexpr int kSignTypeOfficial = 1;

// A short English description of a result code, for messages.
const char* describeResult(int code);

// What can be read from a package without checking its signature.
struct PackageHeader {
    int signType = -1;
    uint64_t payloadSize = 0;   // the payload occupies bytes [0, payloadSize) of the file
    std::string signerSubject;  // one-line distinguished name of the signer certificate
};

// Reads the framing and the (unverified) descriptor of `packagePath`.
// Returns kOk, kUnreadableFile or kNotPackage.
int readPackageHeader(const std::string& packagePath, PackageHeader& header);

// Verifies `packagePath` against the CA certificate(s) in `caCertPath` without
// writing the payload anywhere. When `devCertPath` is not empty the signer's
// certificate (PEM) is written there on success. Returns kOk or a failure code.
int checkPackage(const std::string& packagePath, const std::string& devCertPath, const std::string& caCertPath);

// As verifyPackage below; on success `signType` is the sign type inside the
// descriptor whose signature was just checked (otherwise -1), so a caller
// deciding by the type decides by the bytes it installs.
int verifyPackageAndType(const std::string& packagePath, const std::string& payloadPath, const std::string& devCertPath,
                         const std::string& caCertPath, int& signType);

// What a successful verification established about a package.
struct VerifiedPackage {
    int signType = -1;
    uint64_t payloadSize = 0;  // the payload is bytes [0, payloadSize) of the package
    std::string signerPem;     // the signer's certificate
};

// Verifies the package open at `packageFd`, reading it only by offset (its
// file position is neither used nor moved). When `payloadFd` is not -1 the
// payload is appended to it as it is hashed: bytes written there before a
// failure are the caller's to discard. Fills `verified` on kOk only.
int verifyPackageFd(int packageFd, int payloadFd, const std::string& caCertPath, VerifiedPackage& verified);

// The framing and unverified descriptor of the package open at `packageFd`.
int readPackageHeaderFd(int packageFd, PackageHeader& header);

struct SignRequest {
    std::string payloadPath;  // the zip archive to sign
    std::string packagePath;  // the package to write
    std::string keyPath;      // PEM private key of the signer
    std::string certPath;     // PEM certificate of the signer
    std::string chainPath;    // optional PEM file of intermediate certificates
    int signType = kSignTypeDeveloper;
};

// Writes a signed package (atomically: temporary file, fsync, rename).
// Returns kOk; kBadArgument for an unknown sign type, an unreadable or
// mismatched key, or a certificate without the code-signing usages;
// kUnreadableFile when the payload cannot be read; kWriteFailed when the
// package cannot be written or its signature exceeds the format's limit.
int signPackage(const SignRequest& request);

}  // namespace packagesign

// The signature type stored in the package: 0 (developer) or 1 (official), or
// kUnreadableFile / kNotPackage. The type is read without checking the
// signature; verifyPackageAndType gives the type of the verified bytes.
int getSignType(const std::string& packagePath);

// Checks that `packagePath` is authentic: the signer certificate chains to a
// certificate of `caCertPath`, is within its validity period and carries the
// code-signing usages; the CMS signature over the descriptor holds; the
// payload's SHA-256 matches the signed one. On success (kOk) the payload has
// been written to `payloadPath` and the signer's certificate (PEM) to
// `devCertPath` (skipped when empty). On any failure the code says why and no
// file is left at `payloadPath`.
int verifyPackage(const std::string& packagePath, const std::string& payloadPath, const std::string& devCertPath,
                  const std::string& caCertPath);
