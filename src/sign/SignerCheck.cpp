#include "sign/SignerCheck.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "sign/AtomicFile.h"
#include "sign/PackageSign.h"
#include "sign/SslPtr.h"

namespace packagesign {

namespace {

bool isValidityError(int error) {
    return error == X509_V_ERR_CERT_HAS_EXPIRED || error == X509_V_ERR_CERT_NOT_YET_VALID;
}

std::string bioText(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

// Every certificate that the package carries must be part of the verified
// chain; a certificate that played no part could be changed unnoticed.
bool chainHoldsAll(X509_STORE_CTX* ctx, STACK_OF(X509) * carried) {
    STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(ctx);
    for (int i = 0; carried && i < sk_X509_num(carried); ++i) {
        bool found = false;
        for (int j = 0; chain && j < sk_X509_num(chain) && !found; ++j) {
            found = X509_cmp(sk_X509_value(carried, i), sk_X509_value(chain, j)) == 0;
        }
        if (!found) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool hasCodeSigningUsage(X509* cert) {
    // Fills the extension cache; -1 checks no purpose.
    X509_check_purpose(cert, -1, 0);
    const uint32_t flags = X509_get_extension_flags(cert);
    if (flags & EXFLAG_INVALID) {
        return false;
    }
    // Without the extension OpenSSL reports "all usages"; demand it explicitly.
    const bool codeSigning = (flags & EXFLAG_XKUSAGE) && (X509_get_extended_key_usage(cert) & XKU_CODE_SIGN);
    const bool digitalSignature = (flags & EXFLAG_KUSAGE) && (X509_get_key_usage(cert) & KU_DIGITAL_SIGNATURE);
    return codeSigning && digitalSignature;
}

int checkSigner(X509* signer, STACK_OF(X509) * untrusted, const std::string& caPath) {
    StorePtr store(X509_STORE_new());
    if (!store || caPath.empty() || X509_STORE_load_file(store.get(), caPath.c_str()) != 1) {
        ERR_clear_error();
        return kUnreadableFile;
    }
    StoreCtxPtr ctx(X509_STORE_CTX_new());
    if (!ctx || X509_STORE_CTX_init(ctx.get(), store.get(), signer, untrusted) != 1) {
        return kUntrustedCertificate;
    }
    // OpenSSL 3.0 has no code-signing purpose: accept any purpose for the
    // chain and check the signer's usages below.
    X509_STORE_CTX_set_purpose(ctx.get(), X509_PURPOSE_ANY);
    const int verified = X509_verify_cert(ctx.get());
    const int error = X509_STORE_CTX_get_error(ctx.get());
    ERR_clear_error();
    if (verified != 1) {
        return isValidityError(error) ? kExpiredCertificate : kUntrustedCertificate;
    }
    return chainHoldsAll(ctx.get(), untrusted) && hasCodeSigningUsage(signer) ? kOk : kUntrustedCertificate;
}

std::string certificatePem(X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) {
        return std::string();
    }
    return bioText(bio.get());
}

bool writeCertificatePem(X509* cert, const std::string& path) {
    const std::string pem = certificatePem(cert);
    AtomicFile file;
    return !pem.empty() && file.open(path, 0644) && file.write(pem.data(), pem.size()) && file.commit();
}

std::string subjectLine(X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || X509_NAME_print_ex(bio.get(), X509_get_subject_name(cert), 0, XN_FLAG_ONELINE) < 0) {
        return std::string();
    }
    return bioText(bio.get());
}

}  // namespace packagesign
