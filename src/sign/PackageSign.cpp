// Reading and verifying packages: getSignType, verifyPackage and friends.
#include "sign/PackageSign.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <vector>

#include "sign/AtomicFile.h"
#include "sign/CmsProfile.h"
#include "sign/PackageReader.h"
#include "sign/SignerCheck.h"

namespace packagesign {

namespace {

// The payload is streamed in chunks of this size, whatever its length.
constexpr size_t kChunkSize = 64 * 1024;

std::string memoryBioText(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

// Checks the CMS signature over the descriptor, then the signer certificate.
// Fills `descriptor` and `signer` (owned by the CMS) on success.
int verifySignature(const PackageReader& reader, const std::string& caCertPath, Descriptor& descriptor, X509*& signer) {
    CMS_ContentInfo* cms = reader.cms();
    BioPtr content(BIO_new(BIO_s_mem()));
    // The chain is checked by checkSigner, with the usages this format needs.
    const int verified =
        content ? CMS_verify(cms, nullptr, nullptr, nullptr, content.get(), CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) : 0;
    ERR_clear_error();
    CMS_SignerInfo* info = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms), 0);
    signer = nullptr;
    CMS_SignerInfo_get0_algs(info, nullptr, &signer, nullptr, nullptr);
    if (verified != 1 || !signer || !hasSignerInfoProfile(info, signer)) {
        return kBadSignature;
    }
    if (!decodeDescriptor(memoryBioText(content.get()), descriptor) ||
        descriptor.payloadSize != reader.trailer().payloadSize) {
        return kNotPackage;
    }
    CertStackPtr certificates(CMS_get1_certs(cms));
    return checkSigner(signer, certificates.get(), caCertPath);
}

// Receives the payload's bytes as they are hashed; false stops the stream.
typedef std::function<bool(const unsigned char*, size_t)> PayloadSink;

// Hashes the payload through the package's descriptor, handing it to `sink`
// when given, and compares the digest with the signed one.
int streamPayload(const PackageReader& reader, const Descriptor& descriptor, const PayloadSink& sink) {
    MdCtxPtr md(EVP_MD_CTX_new());
    if (!md || EVP_DigestInit_ex(md.get(), EVP_sha256(), nullptr) != 1) {
        return kBadSignature;
    }
    std::vector<unsigned char> buffer(kChunkSize);
    for (uint64_t offset = 0; offset < descriptor.payloadSize;) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(kChunkSize, descriptor.payloadSize - offset));
        if (!reader.readAt(buffer.data(), n, offset)) {
            return kUnreadableFile;
        }
        if (EVP_DigestUpdate(md.get(), buffer.data(), n) != 1) {
            return kBadSignature;
        }
        if (sink && !sink(buffer.data(), n)) {
            return kWriteFailed;
        }
        offset += n;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(md.get(), digest, &length) != 1 || length != kDigestSize ||
        CRYPTO_memcmp(digest, descriptor.digest.data(), kDigestSize) != 0) {
        return kBadSignature;
    }
    return kOk;
}

// Signature, signer and payload digest of an open package; the payload goes to `sink`.
int verifyOpened(PackageReader& reader, const std::string& caCertPath, const PayloadSink& sink, Descriptor& descriptor,
                 X509*& signer) {
    int code = verifySignature(reader, caCertPath, descriptor, signer);
    return code == kOk ? streamPayload(reader, descriptor, sink) : code;
}

int verify(const std::string& packagePath, const std::string* payloadPath, const std::string& devCertPath,
           const std::string& caCertPath, int* signType = nullptr) {
    PackageReader reader;
    int code = reader.open(packagePath);
    if (code != kOk) {
        return code;
    }
    // The payload is read back at once by the unpacking and can be verified
    // again from the package: it is written whole, but not synced.
    AtomicFile payload;
    if (payloadPath && !payload.open(*payloadPath, 0644, true)) {
        return kWriteFailed;
    }
    PayloadSink sink;
    if (payloadPath) {
        sink = [&payload](const unsigned char* data, size_t size) { return payload.write(data, size); };
    }
    Descriptor descriptor;
    X509* signer = nullptr;
    code = verifyOpened(reader, caCertPath, sink, descriptor, signer);
    if (code != kOk) {
        return code;
    }
    if (!devCertPath.empty() && !writeCertificatePem(signer, devCertPath)) {
        return kWriteFailed;
    }
    if (payloadPath && !payload.commit()) {
        return kWriteFailed;
    }
    if (signType) {
        *signType = descriptor.signType;
    }
    return kOk;
}

// A failed verification leaves no payload behind, not even one from an
// earlier call, unless that path is the package itself.
void removeStalePayload(const std::string& packagePath, const std::string& payloadPath) {
    struct stat package, payload;
    if (::stat(payloadPath.c_str(), &payload) != 0 || !S_ISREG(payload.st_mode)) {
        return;
    }
    if (::stat(packagePath.c_str(), &package) == 0 && package.st_dev == payload.st_dev &&
        package.st_ino == payload.st_ino) {
        return;
    }
    ::unlink(payloadPath.c_str());
}

}  // namespace

const char* describeResult(int code) {
    switch (code) {
        case kOk:
            return "ok";
        case kUnreadableFile:
            return "file cannot be read";
        case kNotPackage:
            return "not a signed package";
        case kBadSignature:
            return "signature does not match";
        case kUntrustedCertificate:
            return "signer certificate is not trusted for code signing";
        case kExpiredCertificate:
            return "certificate expired or not yet valid";
        case kWriteFailed:
            return "output cannot be written";
        case kBadArgument:
            return "bad argument";
        default:
            return "unknown error";
    }
}

namespace {

int readHeader(PackageReader& reader, int openCode, PackageHeader& header) {
    Descriptor descriptor;
    if (openCode != kOk) {
        return openCode;
    }
    if (!reader.embeddedDescriptor(descriptor) || descriptor.payloadSize != reader.trailer().payloadSize) {
        return kNotPackage;
    }
    X509* signer = reader.namedSigner();
    ERR_clear_error();
    header.signType = descriptor.signType;
    header.payloadSize = descriptor.payloadSize;
    header.signerSubject = signer ? subjectLine(signer) : std::string();
    return kOk;
}

}  // namespace

int readPackageHeader(const std::string& packagePath, PackageHeader& header) {
    try {
        PackageReader reader;
        const int code = reader.open(packagePath);
        return readHeader(reader, code, header);
    } catch (const std::exception&) {
        return kUnreadableFile;
    }
}

int readPackageHeaderFd(int packageFd, PackageHeader& header) {
    try {
        PackageReader reader;
        const int code = reader.open(packageFd);
        return readHeader(reader, code, header);
    } catch (const std::exception&) {
        return kUnreadableFile;
    }
}

int checkPackage(const std::string& packagePath, const std::string& devCertPath, const std::string& caCertPath) {
    try {
        return verify(packagePath, nullptr, devCertPath, caCertPath);
    } catch (const std::exception&) {
        return kUnreadableFile;
    }
}

int verifyPackageFd(int packageFd, int payloadFd, const std::string& caCertPath, VerifiedPackage& verified) {
    verified = VerifiedPackage();
    try {
        PackageReader reader;
        int code = reader.open(packageFd);
        PayloadSink sink;
        if (payloadFd >= 0) {
            sink = [payloadFd](const unsigned char* data, size_t size) { return writeAll(payloadFd, data, size); };
        }
        Descriptor descriptor;
        X509* signer = nullptr;
        if (code == kOk) {
            code = verifyOpened(reader, caCertPath, sink, descriptor, signer);
        }
        const std::string pem = code == kOk ? certificatePem(signer) : std::string();
        if (code == kOk && pem.empty()) {
            code = kWriteFailed;
        }
        if (code == kOk) {
            verified.signType = descriptor.signType;
            verified.payloadSize = descriptor.payloadSize;
            verified.signerPem = pem;
        }
        return code;
    } catch (const std::exception&) {
        return kUnreadableFile;
    }
}

int verifyPackageAndType(const std::string& packagePath, const std::string& payloadPath, const std::string& devCertPath,
                         const std::string& caCertPath, int& signType) {
    signType = -1;
    int code;
    try {
        code =
            payloadPath.empty() ? kWriteFailed : verify(packagePath, &payloadPath, devCertPath, caCertPath, &signType);
    } catch (const std::exception&) {
        code = kUnreadableFile;
    }
    if (code != kOk) {
        // The caller may explain the failure with errno: the clean-up must not change it.
        const int err = errno;
        signType = -1;
        removeStalePayload(packagePath, payloadPath);
        errno = err;
    }
    return code;
}

}  // namespace packagesign

int getSignType(const std::string& packagePath) {
    packagesign::PackageHeader header;
    const int code = packagesign::readPackageHeader(packagePath, header);
    return code == packagesign::kOk ? header.signType : code;
}

int verifyPackage(const std::string& packagePath, const std::string& payloadPath, const std::string& devCertPath,
                  const std::string& caCertPath) {
    int signType = -1;
    return packagesign::verifyPackageAndType(packagePath, payloadPath, devCertPath, caCertPath, signType);
}
