// verifyPackage against a fixed test CA on arbitrary files. Whatever the
// input, a failed verification leaves no payload file behind, and a success
// (which a mutation of a signed seed can never reach) leaves a payload of the
// size the package declares.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "sign/PackageSign.h"

namespace {

bool exists(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string package = fuzzsupport::underRoot("/input.qpk");
    const std::string payload = fuzzsupport::underRoot("/payload.zip");
    const std::string certificate = fuzzsupport::underRoot("/signer.pem");
    fuzzsupport::writeInput(package, data, size);

    const int result = verifyPackage(package, payload, certificate, DC_FUZZ_PKI_DIR "/ca.pem");
    if (result != packagesign::kOk && exists(payload)) {
        fuzzsupport::fail("a refused package left its payload behind");
    }
    if (result == packagesign::kOk) {
        packagesign::PackageHeader header;
        struct stat status;
        if (packagesign::readPackageHeader(package, header) != packagesign::kOk ||
            stat(payload.c_str(), &status) != 0 || static_cast<uint64_t>(status.st_size) != header.payloadSize) {
            fuzzsupport::fail("an accepted package wrote a payload of the wrong size");
        }
    }
    unlink(payload.c_str());
    unlink(certificate.c_str());
    return 0;
}
