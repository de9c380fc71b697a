#pragma once
// Trust decisions about a signer certificate.
#include <openssl/x509.h>

#include <string>

namespace packagesign {

// True when `cert` carries the extended key usage codeSigning and the key
// usage digitalSignature (both extensions present).
bool hasCodeSigningUsage(X509* cert);

// Checks that `signer` chains to a certificate of the PEM file `caPath`
// (intermediates may come from `untrusted`, all of which must be part of the
// chain), that every certificate of the chain is within its validity period,
// and that the signer may sign code.
// Returns kOk, kUnreadableFile (CA file unusable), kExpiredCertificate or
// kUntrustedCertificate.
int checkSigner(X509* signer, STACK_OF(X509) * untrusted, const std::string& caPath);

// Writes `cert` as PEM to `path` atomically. False on any error.
bool writeCertificatePem(X509* cert, const std::string& path);

// The certificate in PEM, or "" when it cannot be encoded.
std::string certificatePem(X509* cert);

// The one-line distinguished name of `cert`, e.g. "CN = Official Signer".
std::string subjectLine(X509* cert);

}  // namespace packagesign
