#pragma once
// The bytes an installation unpacks: the payload of a package whose
// signature held, reachable only through the descriptor held here. The file
// that holds it has no name, so nothing that reaches the user disk (a sandbox
// with the whole disk bound in, a local user) can open or change it between
// the check and the unpacking, and it is gone with the descriptor however the
// run ends, a crash included.
#include <cstdint>
#include <string>

#include "storage/UniqueFd.h"

class VerifiedPayload {
public:
    // A new unnamed file for reading and writing in the folder `dir`, or an
    // invalid descriptor (errno says why).
    static datacenter::UniqueFd sCreateUnnamed(const std::string& dir);

    // Verifies the package at `packagePath`, copying its payload once into an
    // unnamed file in `stagingDir`. Returns the signing library's code.
    int copyFrom(const std::string& packagePath, const std::string& stagingDir);
    // Verifies the package held by `package` (an unnamed download) where it
    // is: the payload stays the first size() bytes of it, and nothing is
    // copied. Returns the signing library's code.
    int verifyInPlace(datacenter::UniqueFd package);

    bool valid() const { return fd_.valid(); }
    // The file holding the payload as bytes [0, size()).
    int fd() const { return fd_.get(); }
    uint64_t size() const { return size_; }
    int signType() const { return signType_; }
    const std::string& signerPem() const { return signerPem_; }
    // After a failed check: the sign type the package claims (unverified), or
    // the signing library's code when it has none.
    int claimedSignType() const { return claimedType_; }
    // Closes the file, which then no longer exists.
    void reset();

private:
    int verify(datacenter::UniqueFd package, datacenter::UniqueFd copy);

    datacenter::UniqueFd fd_;
    uint64_t size_ = 0;
    int signType_ = -1;
    int claimedType_ = -1;
    std::string signerPem_;
};
