// Writing signed packages.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "sign/AtomicFile.h"
#include "sign/PackageFormat.h"
#include "sign/PackageSign.h"
#include "sign/SignerCheck.h"
#include "sign/SslPtr.h"

namespace packagesign {

namespace {

constexpr size_t kChunkSize = 64 * 1024;

struct SignerMaterial {
    PkeyPtr key;
    X509Ptr cert;
    CertStackPtr chain{sk_X509_new_null()};
};

// Loads every certificate of a PEM file (the optional chain).
bool loadChain(const std::string& path, STACK_OF(X509) * chain) {
    BioPtr bio(BIO_new_file(path.c_str(), "r"));
    if (!bio) {
        return false;
    }
    while (X509* cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
        sk_X509_push(chain, cert);
    }
    ERR_clear_error();  // the end of the file shows up as a PEM error
    return sk_X509_num(chain) > 0;
}

int loadSigner(const SignRequest& request, SignerMaterial& material) {
    BioPtr keyBio(BIO_new_file(request.keyPath.c_str(), "r"));
    BioPtr certBio(BIO_new_file(request.certPath.c_str(), "r"));
    if (keyBio) {
        material.key.reset(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
    }
    if (certBio) {
        material.cert.reset(PEM_read_bio_X509(certBio.get(), nullptr, nullptr, nullptr));
    }
    const bool chainOk = request.chainPath.empty() || loadChain(request.chainPath, material.chain.get());
    const bool usable = material.key && material.cert && chainOk &&
                        X509_check_private_key(material.cert.get(), material.key.get()) == 1 &&
                        hasCodeSigningUsage(material.cert.get());
    ERR_clear_error();
    return usable ? kOk : kBadArgument;
}

// Copies the payload into the package while hashing it.
int copyPayload(const std::string& payloadPath, AtomicFile& out, Descriptor& descriptor) {
    const int fd = ::open(payloadPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return kUnreadableFile;
    }
    MdCtxPtr md(EVP_MD_CTX_new());
    int code = md && EVP_DigestInit_ex(md.get(), EVP_sha256(), nullptr) == 1 ? kOk : kBadArgument;
    std::vector<unsigned char> buffer(kChunkSize);
    uint64_t total = 0;
    while (code == kOk) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            code = n == 0 ? kOk : kUnreadableFile;
            break;
        }
        EVP_DigestUpdate(md.get(), buffer.data(), static_cast<size_t>(n));
        code = out.write(buffer.data(), static_cast<size_t>(n)) ? kOk : kWriteFailed;
        total += static_cast<uint64_t>(n);
    }
    ::close(fd);
    unsigned int length = 0;
    if (code == kOk && EVP_DigestFinal_ex(md.get(), descriptor.digest.data(), &length) != 1) {
        code = kBadArgument;
    }
    descriptor.payloadSize = total;
    return code;
}

// The CMS SignedData (DER) over the descriptor, with the signer certificate
// and the chain embedded; empty on failure.
std::string signDescriptor(const std::string& descriptor, SignerMaterial& material) {
    const unsigned flags = CMS_BINARY | CMS_NOSMIMECAP | CMS_PARTIAL;
    CmsPtr cms(CMS_sign(nullptr, nullptr, material.chain.get(), nullptr, flags));
    BioPtr in(BIO_new_mem_buf(descriptor.data(), static_cast<int>(descriptor.size())));
    if (!cms || !in || !CMS_add1_signer(cms.get(), material.cert.get(), material.key.get(), EVP_sha256(), flags) ||
        CMS_final(cms.get(), in.get(), nullptr, CMS_BINARY) != 1) {
        ERR_clear_error();
        return std::string();
    }
    unsigned char* der = nullptr;
    const int length = i2d_CMS_ContentInfo(cms.get(), &der);
    std::string out;
    if (length > 0) {
        out.assign(reinterpret_cast<const char*>(der), static_cast<size_t>(length));
    }
    OPENSSL_free(der);
    return out;
}

int writePackage(const SignRequest& request, SignerMaterial& material) {
    AtomicFile out;
    if (!out.open(request.packagePath, 0644)) {
        return kWriteFailed;
    }
    Descriptor descriptor;
    descriptor.signType = request.signType;
    const int code = copyPayload(request.payloadPath, out, descriptor);
    if (code != kOk) {
        return code;
    }
    const std::string signature = signDescriptor(encodeDescriptor(descriptor), material);
    if (signature.size() < kMinSignatureSize || signature.size() > kMaxSignatureSize) {
        return signature.empty() ? kBadArgument : kWriteFailed;
    }
    Trailer trailer;
    trailer.payloadSize = descriptor.payloadSize;
    trailer.signatureSize = static_cast<uint32_t>(signature.size());
    const std::string tail = encodeTrailer(trailer);
    const bool written = out.write(signature.data(), signature.size()) && out.write(tail.data(), tail.size());
    return written && out.commit() ? kOk : kWriteFailed;
}

}  // namespace

int signPackage(const SignRequest& request) {
    if (request.signType != kSignTypeDeveloper && request.signType != kSignTypeOfficial) {
        return kBadArgument;
    }
    try {
        SignerMaterial material;
        const int code = loadSigner(request, material);
        return code == kOk ? writePackage(request, material) : code;
    } catch (const std::exception&) {
        return kWriteFailed;
    }
}

}  // namespace packagesign
