#pragma once
// The exact shape of the CMS SignedData that our signer writes.
//
// OpenSSL's CMS verification ignores a few fields that the signature does not
// cover (the version numbers, the digestAlgorithms set, the signature
// algorithm identifier of an EC signer, the letter case and white space of
// the issuer name that identifies the signer, unused embedded certificates). A
// changed byte there would leave the signature valid, so a package is
// accepted only when those fields hold exactly what the signer writes.
#include <openssl/cms.h>

#include <vector>

namespace packagesign {

// Checks the fields that CMS_verify leaves alone in the DER encoding:
// SignedData version 1, a digestAlgorithms set of exactly SHA-256, no CRLs,
// one SignerInfo of version 1.
bool hasSignedDataProfile(const std::vector<unsigned char>& der);

// Checks the one SignerInfo: it names `signer` by the exact bytes of its
// issuer and its serial, uses a SHA-256 digest and the signature algorithm
// that goes with the signer's key (ecdsa-with-SHA256 for EC, rsaEncryption
// for RSA), and has no unsigned attributes.
bool hasSignerInfoProfile(CMS_SignerInfo* info, X509* signer);

}  // namespace packagesign
