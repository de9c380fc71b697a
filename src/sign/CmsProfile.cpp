#include "sign/CmsProfile.h"

#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstring>

namespace packagesign {

namespace {

// A window on DER bytes, consumed one element at a time.
struct DerView {
    const unsigned char* data;
    long size;
};

// Takes the next element off `view` when it has the given tag and class and
// a definite length; `content` then holds its contents.
bool takeElement(DerView& view, int tag, int tagClass, DerView& content) {
    const unsigned char* cursor = view.data;
    long length = 0;
    int actualTag = 0;
    int actualClass = 0;
    const int flags = ASN1_get_object(&cursor, &length, &actualTag, &actualClass, view.size);
    if ((flags & 0x80) || flags == 0x21 || actualTag != tag || actualClass != tagClass) {
        return false;
    }
    const long header = static_cast<long>(cursor - view.data);
    if (length > view.size - header) {
        return false;
    }
    content = {cursor, length};
    view.data = cursor + length;
    view.size -= header + length;
    return true;
}

bool isVersionOne(const DerView& integer) {
    return integer.size == 1 && integer.data[0] == 1;
}

// The DER of the AlgorithmIdentifier that the signer writes for SHA-256.
bool sha256Identifier(std::vector<unsigned char>& der) {
    X509_ALGOR* algorithm = X509_ALGOR_new();
    unsigned char* encoded = nullptr;
    int length = 0;
    if (algorithm) {
        X509_ALGOR_set_md(algorithm, EVP_sha256());
        length = i2d_X509_ALGOR(algorithm, &encoded);
    }
    if (length > 0) {
        der.assign(encoded, encoded + length);
    }
    OPENSSL_free(encoded);
    X509_ALGOR_free(algorithm);
    return length > 0;
}

bool isOnlySha256(const DerView& set) {
    std::vector<unsigned char> expected;
    return sha256Identifier(expected) && static_cast<size_t>(set.size) == expected.size() &&
           std::memcmp(set.data, expected.data(), expected.size()) == 0;
}

// Skips the optional [0] certificates; refuses [1] CRLs, which the signer never writes.
bool skipCertificates(DerView& signedData) {
    DerView ignored;
    DerView probe = signedData;
    if (takeElement(probe, 0, V_ASN1_CONTEXT_SPECIFIC, ignored)) {
        signedData = probe;
    }
    probe = signedData;
    return !takeElement(probe, 1, V_ASN1_CONTEXT_SPECIFIC, ignored);
}

int algorithmNid(const X509_ALGOR* algorithm, int* parameterType) {
    const ASN1_OBJECT* oid = nullptr;
    const void* parameter = nullptr;
    *parameterType = V_ASN1_UNDEF;
    if (!algorithm) {
        return NID_undef;
    }
    X509_ALGOR_get0(&oid, parameterType, &parameter, algorithm);
    return oid ? OBJ_obj2nid(oid) : NID_undef;
}

// The SignerInfo must name its certificate by the exact issuer bytes and
// serial: OpenSSL matches names after case and whitespace folding, which
// would let a changed byte there pass.
bool namesSignerExactly(CMS_SignerInfo* info, X509* signer) {
    ASN1_OCTET_STRING* keyId = nullptr;
    X509_NAME* issuer = nullptr;
    ASN1_INTEGER* serial = nullptr;
    if (CMS_SignerInfo_get0_signer_id(info, &keyId, &issuer, &serial) != 1 || keyId || !issuer || !serial) {
        return false;
    }
    const unsigned char* named = nullptr;
    const unsigned char* actual = nullptr;
    size_t namedSize = 0;
    size_t actualSize = 0;
    if (X509_NAME_get0_der(issuer, &named, &namedSize) != 1 ||
        X509_NAME_get0_der(X509_get_issuer_name(signer), &actual, &actualSize) != 1) {
        return false;
    }
    return namedSize == actualSize && std::memcmp(named, actual, namedSize) == 0 &&
           ASN1_INTEGER_cmp(serial, X509_get0_serialNumber(signer)) == 0;
}

}  // namespace

bool hasSignedDataProfile(const std::vector<unsigned char>& der) {
    DerView all{der.data(), static_cast<long>(der.size())};
    DerView contentInfo, oid, explicitContent, signedData, version, digests, encapsulated, infos, info;
    return takeElement(all, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, contentInfo) &&
           takeElement(contentInfo, V_ASN1_OBJECT, V_ASN1_UNIVERSAL, oid) &&
           takeElement(contentInfo, 0, V_ASN1_CONTEXT_SPECIFIC, explicitContent) &&
           takeElement(explicitContent, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, signedData) &&
           takeElement(signedData, V_ASN1_INTEGER, V_ASN1_UNIVERSAL, version) && isVersionOne(version) &&
           takeElement(signedData, V_ASN1_SET, V_ASN1_UNIVERSAL, digests) && isOnlySha256(digests) &&
           takeElement(signedData, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, encapsulated) && skipCertificates(signedData) &&
           takeElement(signedData, V_ASN1_SET, V_ASN1_UNIVERSAL, infos) && signedData.size == 0 &&
           takeElement(infos, V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, info) && infos.size == 0 &&
           takeElement(info, V_ASN1_INTEGER, V_ASN1_UNIVERSAL, version) && isVersionOne(version);
}

bool hasSignerInfoProfile(CMS_SignerInfo* info, X509* signer) {
    X509_ALGOR* digest = nullptr;
    X509_ALGOR* signature = nullptr;
    CMS_SignerInfo_get0_algs(info, nullptr, nullptr, &digest, &signature);
    int digestParameter = V_ASN1_UNDEF;
    int signatureParameter = V_ASN1_UNDEF;
    if (algorithmNid(digest, &digestParameter) != NID_sha256 || digestParameter != V_ASN1_UNDEF ||
        CMS_unsigned_get_attr_count(info) > 0 || !namesSignerExactly(info, signer)) {
        return false;
    }
    const int signatureNid = algorithmNid(signature, &signatureParameter);
    switch (EVP_PKEY_get_base_id(X509_get0_pubkey(signer))) {
        case EVP_PKEY_EC:
            return signatureNid == NID_ecdsa_with_SHA256 && signatureParameter == V_ASN1_UNDEF;
        case EVP_PKEY_RSA:
            return signatureNid == NID_rsaEncryption && signatureParameter == V_ASN1_NULL;
        default:
            return false;
    }
}

}  // namespace packagesign
