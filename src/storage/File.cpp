#include "storage/File.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <boost/thread/thread.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>

#include "storage/UniqueFd.h"

namespace fs = boost::filesystem;

namespace datacenter {
namespace {

// Tells apart the temporary files of one process.
std::atomic<unsigned> gTemporaryCounter(0);

// Six letters and digits, as mkstemp makes them: the start-up recovery
// knows half-written files by "<name>.tmp.XXXXXX".
std::string temporarySuffix() {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    unsigned long long mixed =
        (static_cast<unsigned long long>(::getpid()) << 32) ^ gTemporaryCounter++ ^
        static_cast<unsigned long long>(std::chrono::steady_clock::now().time_since_epoch().count());
    std::string suffix;
    for (int i = 0; i < 6; ++i) {
        mixed = mixed * 6364136223846793005ULL + 1442695040888963407ULL;
        suffix += kAlphabet[(mixed >> 33) % (sizeof kAlphabet - 1)];
    }
    return suffix;
}

std::mutex gSeamMutex;
File::DiskSpaceQuery gDiskSpaceQuery;
File::RenameCall gRenameCall;

DiskSpaceInfo realDiskSpace(const std::string& path) {
    DiskSpaceInfo info;
    try {
        const fs::space_info space = fs::space(path);
        info.capacity = space.capacity;
        info.free = space.free;
        info.available = space.available;
    } catch (const std::exception& e) {
        LOG(ERROR) << "boost::filesystem::space(" << path << "), exception : " << e.what();
    }
    return info;
}

int callRename(const std::string& source, const std::string& destination) {
    File::RenameCall call;
    {
        std::lock_guard<std::mutex> lock(gSeamMutex);
        call = gRenameCall;
    }
    if (call) {
        return call(source.c_str(), destination.c_str());
    }
    return ::rename(source.c_str(), destination.c_str()) == 0 ? 0 : errno;
}

std::string parentDirectory(const std::string& path) {
    const std::string parent = fs::path(path).parent_path().string();
    return parent.empty() ? std::string(".") : parent;
}

// Closes a stdio stream when it goes out of scope.
struct StreamCloser {
    FILE* stream;
    ~StreamCloser() {
        if (stream) {
            fclose(stream);
        }
    }
};

// Returns -1 after a short write, 1 when the thread was asked to stop, 0 at the end of the source.
int copyBlocks(FILE* in, FILE* out) {
    char buffer[1024];
    for (;;) {
        const size_t bytesIn = fread(buffer, 1, sizeof(buffer), in);
        if (bytesIn == 0) {
            // A read error is no end of file: a truncated copy must not pass for a whole one.
            if (ferror(in)) {
                LOG(ERROR) << "copy file read error: " << strerror(errno);
                return -1;
            }
            return 0;
        }
        const size_t bytesOut = fwrite(buffer, 1, bytesIn, out);
        if (bytesOut < bytesIn) {
            LOG(INFO) << "copy file bytes_in=" << bytesIn << " bytes_out=" << bytesOut;
            LOG(INFO) << strerror(errno);
            return -1;
        }
        try {
            boost::this_thread::interruption_point();
        } catch (const boost::thread_interrupted&) {
            return 1;
        }
    }
}

}  // namespace

bool File::sExists(const std::string& path) {
    try {
        boost::system::error_code ec;
        return fs::exists(fs::symlink_status(path, ec));
    } catch (const std::exception& e) {
        LOG(ERROR) << "File::sExists catch exception: " << e.what();
        return false;
    }
}

uint64_t File::sGetFileSize(const std::string& path) {
    try {
        boost::system::error_code ec;
        if (!fs::is_regular_file(fs::status(path, ec))) {
            return 0;
        }
        const uint64_t size = fs::file_size(path, ec);
        return ec ? 0 : size;
    } catch (const std::exception& e) {
        LOG(ERROR) << "File::sGetFileSize catch exception: " << e.what();
        return 0;
    }
}

DiskSpaceInfo File::sGetDiskSpaceInfo(const std::string& path) {
    DiskSpaceQuery query;
    {
        std::lock_guard<std::mutex> lock(gSeamMutex);
        query = gDiskSpaceQuery;
    }
    return query ? query(path) : realDiskSpace(path);
}

ErrorCode File::sDelete(const std::string& path) {
    try {
        boost::system::error_code ec;
        const fs::file_status status = fs::symlink_status(path, ec);
        if (!fs::exists(status)) {
            return ErrorCode();
        }
        if (fs::is_directory(status)) {
            LOG(ERROR) << "File delete with folder type. ignore it.";
            return ErrorCode();
        }
        fs::remove(path, ec);
        return ErrorCode(ec);
    } catch (const fs::filesystem_error& e) {
        LOG(ERROR) << "File::sDelete catch exception: " << e.what();
        return ErrorCode(e.code());
    }
}

namespace {

// `path` opened for writing from its start without following a link or
// blocking; refused (errno set) unless it is a regular file with one name.
FILE* openForCopy(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
    struct stat st;
    if (fd < 0) {
        return nullptr;
    }
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 || ::ftruncate(fd, 0) != 0) {
        ::close(fd);
        errno = EINVAL;
        return nullptr;
    }
    ::fcntl(fd, F_SETFL, 0);
    FILE* stream = fdopen(fd, "wb");
    if (!stream) {
        ::close(fd);
    }
    return stream;
}

}  // namespace

int File::sRawCopyFile(const std::string& source, const std::string& destination) {
    const uint64_t available = sGetDiskSpaceInfo(parentDirectory(destination)).available;
    if (available < sGetFileSize(source) + sCopyReserveBytes) {
        LOG(INFO) << "copy error: No space left on device , from " << source << " to " << destination
                  << ", available space is " << available << " byte";
        return sCopyNoSpace;
    }
    StreamCloser in{fopen(source.c_str(), "rb")};
    if (!in.stream) {
        LOG(INFO) << "open file " << source << " failed";
        LOG(INFO) << strerror(errno);
        return sCopyFailed;
    }
    // The copy is created and later chmodded through its own descriptor: a
    // link in its place is not followed, and a file with another name (a
    // hard link) is neither truncated nor made world-writable.
    StreamCloser out{openForCopy(destination)};
    if (!out.stream) {
        LOG(INFO) << "open file " << destination << " failed";
        LOG(INFO) << strerror(errno);
        return sCopyFailed;
    }
    const int result = copyBlocks(in.stream, out.stream);
    if (result == -1) {
        return sCopyFailed;
    }
    // On disk before anyone relies on it: a move deletes its source next.
    bool flushed = result != 0 || (fflush(out.stream) == 0 && fsync(fileno(out.stream)) == 0);
    const bool opened = result != 0 || ::fchmod(fileno(out.stream), 0777) == 0;
    flushed = fclose(out.stream) == 0 && flushed && opened;
    out.stream = nullptr;
    if (result == 1) {
        LOG(INFO) << "copy thread interrupted";
        ::unlink(destination.c_str());
        return sCopyInterrupted;
    }
    if (!flushed) {
        LOG(INFO) << "copy file bytes_in=" << sGetFileSize(source) << " bytes_out=" << sGetFileSize(destination);
        LOG(INFO) << strerror(errno);
        return sCopyFailed;
    }
    return sCopyOk;
}

ErrorCode File::sMove(const std::string& source, const std::string& destination) {
    const int error = callRename(source, destination);
    if (error != EXDEV) {
        return ErrorCode(boost::system::error_code(error, boost::system::system_category()));
    }
    switch (sRawCopyFile(source, destination)) {
        case sCopyFailed:
            return ErrorCode(API_FILE_OPEN_OR_WRITE_FAILED);
        case sCopyNoSpace:
            return ErrorCode(API_NO_SPACE);
        case sCopyInterrupted:
            return ErrorCode(API_COPY_INTERRUPTED);
        default:
            return sDelete(source);
    }
}

bool File::sWriteAtomically(const std::string& path, const std::function<bool(FILE*)>& writer, unsigned newFileMode) {
    // The folder is resolved once; the temporary file and the rename both
    // work inside that very folder, whatever its path names meanwhile.
    std::string leaf;
    const UniqueFd dirFd = openParentFolder(path, leaf);
    if (!dirFd.valid() || leaf.empty() || leaf == "/") {
        LOG(ERROR) << "cannot write " << path << ": " << strerror(dirFd.valid() ? EINVAL : errno);
        return false;
    }
    const bool written = sWriteAtomicallyAt(dirFd.get(), leaf, writer, newFileMode);
    if (!written) {
        LOG(ERROR) << "cannot write " << path << ": " << strerror(errno);
    }
    return written;
}

bool File::sWriteAtomicallyAt(int dirFd, const std::string& leaf, const std::function<bool(FILE*)>& writer,
                              unsigned newFileMode) {
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; fd < 0 && attempt < 100; ++attempt) {
        temporary = leaf + ".tmp." + temporarySuffix();
        fd = ::openat(dirFd, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0 && errno != EEXIST) {
            return false;
        }
    }
    if (fd < 0) {
        return false;
    }
    // Only a plain file of this folder lends its mode; another name of it
    // (a hard link) or a link is replaced, never changed.
    struct stat old;
    const bool plain = ::fstatat(dirFd, leaf.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(old.st_mode);
    const mode_t mode = plain ? (old.st_mode & 07777) : newFileMode;
    FILE* stream = fdopen(fd, "w");
    if (!stream) {
        ::close(fd);
        ::unlinkat(dirFd, temporary.c_str(), 0);
        return false;
    }
    bool ok = writer(stream);
    ok = fflush(stream) == 0 && ok;
    ok = fsync(fd) == 0 && ok;
    ok = fchmod(fd, mode) == 0 && ok;
    ok = fclose(stream) == 0 && ok;
    if (!ok || ::renameat(dirFd, temporary.c_str(), dirFd, leaf.c_str()) != 0) {
        const int err = errno;
        ::unlinkat(dirFd, temporary.c_str(), 0);
        errno = err;
        return false;
    }
    // The rename lasts once the folder is on disk too.
    return fsync(dirFd) == 0;
}

bool File::sWriteAtomically(const std::string& path, const std::string& content, unsigned newFileMode) {
    return sWriteAtomically(
        path, [&content](FILE* stream) { return fwrite(content.data(), 1, content.size(), stream) == content.size(); },
        newFileMode);
}

void File::sSetDiskSpaceQuery(DiskSpaceQuery query) {
    std::lock_guard<std::mutex> lock(gSeamMutex);
    gDiskSpaceQuery = std::move(query);
}

void File::sSetRenameCall(RenameCall call) {
    std::lock_guard<std::mutex> lock(gSeamMutex);
    gRenameCall = std::move(call);
}

}  // namespace datacenter
