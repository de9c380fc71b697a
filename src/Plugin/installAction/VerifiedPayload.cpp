#include "Plugin/installAction/VerifiedPayload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Plugin/installAction/InstallAction.h"
#include "sign/PackageSign.h"

datacenter::UniqueFd VerifiedPayload::sCreateUnnamed(const std::string& dir) {
    std::string path = dir;
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();  // a trailing "/" would follow a link put in the folder's place
    }
    const datacenter::UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (!folder.valid() || ::fstat(folder.get(), &st) != 0) {
        return datacenter::UniqueFd();
    }
    if (st.st_uid != ::geteuid() || (st.st_mode & 077) != 0) {
        errno = EPERM;  // a folder others can enter is no place for the payload
        return datacenter::UniqueFd();
    }
    // O_EXCL: the file can never be given a name later, not even by a link.
    datacenter::UniqueFd file(::openat(folder.get(), ".", O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, 0600));
    if (file.valid() || (errno != EOPNOTSUPP && errno != EISDIR)) {
        return file;
    }
    // A file system without unnamed files: a fresh private name, dropped at once.
    for (int attempt = 0; attempt < 100 && !file.valid(); ++attempt) {
        const std::string name = ".payload-" + std::to_string(::getpid()) + "-" + std::to_string(attempt);
        file.reset(::openat(folder.get(), name.c_str(), O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (file.valid()) {
            ::unlinkat(folder.get(), name.c_str(), 0);
        } else if (errno != EEXIST) {
            break;
        }
    }
    return file;
}

int VerifiedPayload::copyFrom(const std::string& packagePath, const std::string& stagingDir) {
    reset();
    // Without blocking: a FIFO or device given as the package must not hang the installer.
    datacenter::UniqueFd package(::open(packagePath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!package.valid()) {
        return packagesign::kUnreadableFile;
    }
    datacenter::UniqueFd copy = sCreateUnnamed(stagingDir);
    if (!copy.valid()) {
        return packagesign::kWriteFailed;
    }
    return verify(std::move(package), std::move(copy));
}

int VerifiedPayload::verifyInPlace(datacenter::UniqueFd package) {
    reset();
    return verify(std::move(package), datacenter::UniqueFd());
}

int VerifiedPayload::verify(datacenter::UniqueFd package, datacenter::UniqueFd copy) {
    packagesign::VerifiedPackage verified;
    errno = 0;
    const int code = packagesign::verifyPackageFd(package.get(), copy.get(), InstallAction::sCaCertPath(), verified);
    if (code != packagesign::kOk) {
        const int err = errno;
        packagesign::PackageHeader header;
        const int read = packagesign::readPackageHeaderFd(package.get(), header);
        claimedType_ = read == packagesign::kOk ? header.signType : read;
        errno = err;
        return code;
    }
    fd_ = copy.valid() ? std::move(copy) : std::move(package);
    size_ = verified.payloadSize;
    signType_ = verified.signType;
    claimedType_ = verified.signType;
    signerPem_ = verified.signerPem;
    return code;
}

void VerifiedPayload::reset() {
    fd_.reset();
    size_ = 0;
    signType_ = -1;
    claimedType_ = -1;
    signerPem_.clear();
}
