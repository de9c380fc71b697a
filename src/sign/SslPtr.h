#pragma once
// Owning pointers for the OpenSSL objects used by the signing library.
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace packagesign {

struct SslDeleter {
    void operator()(BIO* p) const { BIO_free_all(p); }
    void operator()(CMS_ContentInfo* p) const { CMS_ContentInfo_free(p); }
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(X509_STORE* p) const { X509_STORE_free(p); }
    void operator()(X509_STORE_CTX* p) const { X509_STORE_CTX_free(p); }
    void operator()(STACK_OF(X509) * p) const { sk_X509_pop_free(p, X509_free); }
};

using BioPtr = std::unique_ptr<BIO, SslDeleter>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, SslDeleter>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, SslDeleter>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, SslDeleter>;
using X509Ptr = std::unique_ptr<X509, SslDeleter>;
using StorePtr = std::unique_ptr<X509_STORE, SslDeleter>;
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, SslDeleter>;
using CertStackPtr = std::unique_ptr<STACK_OF(X509), SslDeleter>;

}  // namespace packagesign
