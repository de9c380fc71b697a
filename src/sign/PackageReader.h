#pragma once
// Opens a package through one file descriptor and parses its framing: the
// trailer, then the CMS signature it points to. Every later read (the payload
// stream included) goes through the same descriptor, so the bytes that are
// checked are the bytes that are used, whatever happens to the path meanwhile.
#include <sys/types.h>

#include <cstdint>
#include <string>

#include "sign/PackageFormat.h"
#include "sign/SslPtr.h"

namespace packagesign {

class PackageReader {
public:
    PackageReader() = default;
    ~PackageReader();
    PackageReader(const PackageReader&) = delete;
    PackageReader& operator=(const PackageReader&) = delete;

    // Opens `path` and checks trailer and CMS structure. Returns kOk,
    // kUnreadableFile (cannot open or read, not a regular file) or kNotPackage.
    int open(const std::string& path);
    // As open(path), on a descriptor the caller keeps: the reader reads
    // through its own duplicate of it.
    int open(int fd);

    const Trailer& trailer() const { return trailer_; }
    CMS_ContentInfo* cms() const { return cms_.get(); }

    // Reads exactly `size` bytes at `offset`; false on error or end of file.
    bool readAt(void* buffer, size_t size, uint64_t offset) const;
    // The descriptor carried in the CMS, not yet checked against the signature.
    bool embeddedDescriptor(Descriptor& descriptor) const;
    // The certificate that the single SignerInfo names, taken from the
    // certificates inside the CMS (not verified), or null.
    X509* namedSigner() const;
    // True when `path` names the same file as the open package.
    bool isSameFile(const std::string& path) const;

private:
    int readFraming();
    int parseSignature();

    int fd_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    uint64_t fileSize_ = 0;
    Trailer trailer_;
    CmsPtr cms_;
};

}  // namespace packagesign
