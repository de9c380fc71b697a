#include "sign/PackageReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "sign/CmsProfile.h"
#include "sign/PackageSign.h"

namespace packagesign {

namespace {

// Accepts only the exact DER encoding that OpenSSL itself would write: a
// lenient BER parse could otherwise accept bytes that differ from the ones
// the signer produced.
bool isCanonical(CMS_ContentInfo* cms, const std::vector<unsigned char>& der) {
    unsigned char* encoded = nullptr;
    const int length = i2d_CMS_ContentInfo(cms, &encoded);
    const bool same =
        length > 0 && static_cast<size_t>(length) == der.size() && std::memcmp(encoded, der.data(), der.size()) == 0;
    OPENSSL_free(encoded);
    return same;
}

bool hasEmbeddedData(CMS_ContentInfo* cms) {
    if (OBJ_obj2nid(CMS_get0_type(cms)) != NID_pkcs7_signed ||
        OBJ_obj2nid(CMS_get0_eContentType(cms)) != NID_pkcs7_data) {
        return false;
    }
    ASN1_OCTET_STRING** content = CMS_get0_content(cms);
    return content && *content && ASN1_STRING_length(*content) > 0;
}

}  // namespace

PackageReader::~PackageReader() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

int PackageReader::open(const std::string& path) {
    // Without blocking: a FIFO or device in place of a package must not hang the reader.
    fd_ = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    return readFraming();
}

int PackageReader::open(int fd) {
    fd_ = fd < 0 ? -1 : ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    return readFraming();
}

int PackageReader::readFraming() {
    struct stat st;
    if (fd_ < 0 || ::fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
        return kUnreadableFile;
    }
    device_ = st.st_dev;
    inode_ = st.st_ino;
    fileSize_ = static_cast<uint64_t>(st.st_size);
    if (fileSize_ < kTrailerSize) {
        return kNotPackage;
    }
    unsigned char raw[kTrailerSize];
    if (!readAt(raw, sizeof raw, fileSize_ - kTrailerSize)) {
        return kUnreadableFile;
    }
    if (!decodeTrailer(raw, fileSize_, trailer_)) {
        return kNotPackage;
    }
    return parseSignature();
}

int PackageReader::parseSignature() {
    // The trailer bounded signatureSize to at most kMaxSignatureSize bytes.
    std::vector<unsigned char> der(trailer_.signatureSize);
    if (!readAt(der.data(), der.size(), trailer_.payloadSize)) {
        return kUnreadableFile;
    }
    const unsigned char* cursor = der.data();
    cms_.reset(d2i_CMS_ContentInfo(nullptr, &cursor, static_cast<long>(der.size())));
    if (!cms_ || cursor != der.data() + der.size() || !isCanonical(cms_.get(), der) || !hasSignedDataProfile(der) ||
        !hasEmbeddedData(cms_.get())) {
        cms_.reset();
        return kNotPackage;
    }
    return kOk;
}

bool PackageReader::readAt(void* buffer, size_t size, uint64_t offset) const {
    auto* out = static_cast<char*>(buffer);
    while (size > 0) {
        const ssize_t n = ::pread(fd_, out, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        out += n;
        size -= static_cast<size_t>(n);
        offset += static_cast<uint64_t>(n);
    }
    return true;
}

bool PackageReader::embeddedDescriptor(Descriptor& descriptor) const {
    ASN1_OCTET_STRING** content = CMS_get0_content(cms_.get());
    if (!content || !*content) {
        return false;
    }
    const std::string bytes(reinterpret_cast<const char*>(ASN1_STRING_get0_data(*content)),
                            static_cast<size_t>(ASN1_STRING_length(*content)));
    return decodeDescriptor(bytes, descriptor);
}

X509* PackageReader::namedSigner() const {
    // Matches the SignerInfo's issuer and serial against the embedded certificates.
    if (CMS_set1_signers_certs(cms_.get(), nullptr, 0) < 0) {
        return nullptr;
    }
    CMS_SignerInfo* info = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms_.get()), 0);
    X509* signer = nullptr;
    CMS_SignerInfo_get0_algs(info, nullptr, &signer, nullptr, nullptr);
    return signer;
}

bool PackageReader::isSameFile(const std::string& path) const {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && st.st_dev == device_ && st.st_ino == inode_;
}

}  // namespace packagesign
