// The package container reader on arbitrary files: framing, trailer lengths,
// the CMS structure and the unverified descriptor. Nothing may crash, read out
// of bounds or claim a payload that does not fit inside the file.
#include <cstdint>

#include "FuzzSupport.h"
#include "sign/PackageReader.h"
#include "sign/PackageSign.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzzsupport::underRoot("/input.qpk");
    fuzzsupport::writeInput(path, data, size);

    packagesign::PackageHeader header;
    const int result = packagesign::readPackageHeader(path, header);
    if (result == packagesign::kOk && header.payloadSize > size) {
        fuzzsupport::fail("header claims a payload larger than the file");
    }
    const int signType = getSignType(path);
    if (signType >= 0 && signType != packagesign::kSignTypeDeveloper && signType != packagesign::kSignTypeOfficial) {
        fuzzsupport::fail("unknown sign type reported as valid");
    }

    packagesign::PackageReader reader;
    if (reader.open(path) == packagesign::kOk) {
        packagesign::Descriptor descriptor;
        reader.embeddedDescriptor(descriptor);
        reader.namedSigner();
    }
    return 0;
}
