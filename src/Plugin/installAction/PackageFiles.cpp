#include "Plugin/installAction/PackageFiles.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>
#include <zlib.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include "Plugin/PluginManager.h"
#include "Plugin/installAction/ArchiveLayout.h"
#include "Plugin/installAction/InstallAction.h"
#include "Plugin/installAction/UpgradeBackup.h"
#include "common/ShellArgument.h"
#include "sign/PackageSign.h"
#include "storage/Directory.h"
#include "storage/Durability.h"
#include "storage/File.h"
#include "storage/PluginTree.h"
#include "storage/TreeRemoval.h"
#include "storage/UniqueFd.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/RootPrefix.h"

namespace fs = boost::filesystem;

namespace {

// A manifest is a few settings; anything larger is not one.
const zip_uint64_t kMaxManifestBytes = 1024 * 1024;

struct ZipCloser {
    void operator()(zip_t* archive) const { zip_close(archive); }
};
typedef std::unique_ptr<zip_t, ZipCloser> Archive;

// An archive opened for unpacking through a stream with a large buffer of
// its own: libzip reads through stdio, whose default buffer of one block
// would cost a seek and a read for every 4 KiB of the payload. The buffer is
// declared first so that it outlives the stream, which the archive closes.
struct UnpackArchive {
    std::vector<char> buffer = std::vector<char>(256 * 1024);
    Archive archive;
    int openError = 0;  // libzip's code when `archive` could not be opened
};

bool sameEntries(zip_t* archive, const ArchiveLayout& layout) {
    if (zip_get_num_entries(archive, 0) != static_cast<zip_int64_t>(layout.entries.size())) {
        return false;
    }
    for (size_t i = 0; i < layout.entries.size(); ++i) {
        const char* raw = zip_get_name(archive, i, ZIP_FL_ENC_RAW);
        if (!raw || layout.entries[i].name != raw) {
            return false;
        }
    }
    return true;
}

// Opens the payload in the first `size` bytes of `fd` through libzip over
// the archive's extent only: a stub in front of it and junk (or a package's
// signature) behind it are no part of it. `problem` says why its layout does
// not hold together; the archive may be open all the same, for reading the
// manifest. libzip must see the same entries under the same names as the
// layout, or the checks would be about other bytes.
void openPayload(int fd, uint64_t size, UnpackArchive& out, ArchiveLayout& layout, std::string& problem) {
    const int copy = fd < 0 ? -1 : fcntl(fd, F_DUPFD_CLOEXEC, 0);
    FILE* file = copy < 0 ? nullptr : fdopen(copy, "rb");
    if (!file) {
        const int err = errno;
        if (copy >= 0) {
            close(copy);
        }
        out.openError = ZIP_ER_OPEN;
        problem = std::string("it cannot be opened: ") + std::strerror(err);
        return;
    }
    problem = readArchiveLayout(fileno(file), layout, size);
    if (layout.length == 0) {
        out.openError = ZIP_ER_NOZIP;
        std::fclose(file);
        return;
    }
    std::setvbuf(file, out.buffer.data(), _IOFBF, out.buffer.size());
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* source = zip_source_filep_create(file, layout.start, static_cast<zip_int64_t>(layout.length), &error);
    if (!source) {
        std::fclose(file);
    } else {
        out.archive.reset(zip_open_from_source(source, ZIP_RDONLY, &error));
        if (!out.archive) {
            zip_source_free(source);
        }
    }
    if (!out.archive) {
        out.openError = zip_error_code_zip(&error);
        if (problem.empty()) {
            problem = std::string("libzip cannot open it: ") + zip_error_strerror(&error);
        }
    }
    zip_error_fini(&error);
    if (out.archive && problem.empty() && !sameEntries(out.archive.get(), layout)) {
        problem = "libzip reads other entries than its central directory lists";
    }
}

// A payload named by path, opened without blocking on a FIFO put in its place.
int openForReading(const std::string& path) {
    return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

struct Entry {
    zip_uint64_t index;
    std::string name;  // ends in "/" for a directory
    zip_uint64_t size;
    bool directory;
    uint16_t method;
    uint32_t crc;
};

// The file type an archive records for an entry made on a Unix system, or 0.
mode_t unixType(const ArchiveEntry& entry) {
    return entry.madeBy >> 8 == ZIP_OPSYS_UNIX ? (entry.externalAttributes >> 16) & S_IFMT : 0;
}

// A folder marked only by the MS-DOS directory attribute, without the
// trailing "/" (as some Windows archivers write them).
bool dosDirectory(const ArchiveEntry& entry) {
    return entry.madeBy >> 8 == ZIP_OPSYS_DOS && (entry.externalAttributes & 0x10) != 0;
}

// True when `bytes` are well-formed UTF-8 (libzip then reads them as such).
bool isUtf8(const std::string& bytes) {
    for (size_t i = 0; i < bytes.size();) {
        const unsigned char c = bytes[i];
        const size_t length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xe ? 3 : (c >> 3) == 0x1e ? 4 : 0;
        if (length == 0 || i + length > bytes.size()) {
            return false;
        }
        for (size_t k = 1; k < length; ++k) {
            if ((static_cast<unsigned char>(bytes[i + k]) & 0xc0) != 0x80) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

// True when a backslash in a name that is not UTF-8 may be the second byte of
// a two-byte Shift-JIS character, as Japanese Windows archivers write names
// (0x95 0x5C is one character there). Read from the start, a lead byte takes
// the next byte with it.
bool backslashMayBeHalfACharacter(const std::string& raw) {
    if (isUtf8(raw)) {
        return false;
    }
    for (size_t i = 0; i + 1 < raw.size(); ++i) {
        const unsigned char c = raw[i];
        if ((c >= 0x81 && c <= 0x9f) || (c >= 0xe0 && c <= 0xfc)) {
            if (raw[i + 1] == '\\') {
                return true;
            }
            ++i;
        }
    }
    return false;
}

// `name` with the backslashes of an archive made on Windows as separators:
// names without the UTF-8 flag may use them. The safety checks look at the
// converted name, so "..\" climbs out as "../" does. A name whose backslash
// may be half of a character is not guessed at: it keeps its backslashes,
// and the safety checks refuse it.
std::string withSeparators(const ArchiveEntry& entry, std::string name) {
    if (!(entry.flags & kArchiveUtf8Flag) && !backslashMayBeHalfACharacter(entry.rawName)) {
        std::replace(name.begin(), name.end(), '\\', '/');
    }
    return name;
}

// Why an entry cannot be unpacked, or "" when it can. Directory entries
// (names ending in "/", as zip -r, 7-Zip and bsdtar write them, or marked by
// the MS-DOS directory attribute) become directories; links are never made,
// and the mode of a FIFO, socket or device (an archiver that read its
// standard input records it) makes a plain file.
std::string entryProblem(const ArchiveEntry& layout, Entry& entry, const std::string& raw,
                         std::set<std::string>& names) {
    std::string& name = entry.name;
    // libzip shows names in code page 437 as their Unicode look-alikes; the bytes as stored must be clean too.
    if (!datacenter::PluginTree::sIsSafeName(raw) || !datacenter::PluginTree::sIsSafeName(name)) {
        return "its name is absolute, climbs out, or holds a backslash or control character";
    }
    if (name.back() != '/' && dosDirectory(layout)) {
        name += "/";
    }
    entry.directory = name.back() == '/';
    const mode_t type = unixType(layout);
    if (type == S_IFLNK) {
        return "it is a symbolic link";
    }
    if (!entry.directory && (type == S_IFIFO || type == S_IFSOCK || type == S_IFCHR || type == S_IFBLK)) {
        LOG(WARNING) << "unzip: entry '" << printableName(name) << "' carries the mode of a special file; "
                     << "it is written as a plain file";
    } else if (type != 0 && type != (entry.directory ? S_IFDIR : S_IFREG)) {
        return "it is neither a plain file nor a directory";
    }
    if (entry.directory && entry.size != 0) {
        return "a directory entry carries data";
    }
    if (!names.insert(entry.directory ? name.substr(0, name.size() - 1) : name).second) {
        return "its name appears twice";
    }
    return std::string();
}

// The entries to unpack, or false when the archive must be refused as a whole.
bool collectEntries(zip_t* archive, const ArchiveLayout& layout, const std::string& destDir,
                    std::vector<Entry>& entries) {
    std::set<std::string> names;
    zip_uint64_t total = 0;
    for (zip_uint64_t i = 0; i < layout.entries.size(); ++i) {
        const ArchiveEntry& archived = layout.entries[i];
        const char* decoded = zip_get_name(archive, i, 0);
        Entry entry = {
            i, withSeparators(archived, decoded ? decoded : ""), archived.size, false, archived.method, archived.crc};
        const std::string problem = entryProblem(archived, entry, withSeparators(archived, archived.name), names);
        if (!problem.empty()) {
            LOG(ERROR) << "unzip refused: unsafe archive entry '" << printableName(entry.name) << "': " << problem;
            return false;
        }
        total += entry.size;
        entries.push_back(entry);
    }
    const uint64_t available = datacenter::File::sGetDiskSpaceInfo(destDir).available;
    if (total + datacenter::File::sCopyReserveBytes > available) {
        LOG(ERROR) << "unzip refused: " << total << " bytes would not leave the reserve free, available is "
                   << available << " byte";
        return false;
    }
    return true;
}

// True when the tree itself refused the destination (a link, a special file,
// a component that is no directory): no process holding it can change that.
bool refusedByTree(int err) {
    return err == ELOOP || err == ENOTDIR || err == EINVAL || err == ENXIO || err == EISDIR;
}

int openDestination(datacenter::PluginTree& tree, int directoryFd, const std::string& leaf, const std::string& dest) {
    const int flags = O_WRONLY | O_CREAT | O_TRUNC;
    int fd = tree.openFileIn(directoryFd, leaf, flags, 0777);
    if (fd >= 0 || refusedByTree(errno)) {
        if (fd < 0) {
            LOG(ERROR) << "unzip failed. create file error. desFile is" << dest << ": " << tree.lastError();
        }
        return fd;
    }
    // A running plugin may hold the file: free it once and try again.
    LOG(ERROR) << "file busy. desFile is" << dest;
    CommonUtils::sCallSystem("fuser -k " + datacenter::shellArgument(dest));
    usleep(100);
    fd = tree.openFileIn(directoryFd, leaf, flags, 0777);
    if (fd < 0) {
        LOG(ERROR) << "unzip failed. create file error. desFile is" << dest << ": " << tree.lastError();
    }
    return fd;
}

// What one extraction keeps from entry to entry: the copy buffer (large
// writes: one or a few per file instead of one per kilobyte), the
// directories already made, so that the files of one directory do not each
// create and chmod their parents again, and the directory of the last file,
// held open: archives list the files of a directory together, so most files
// are opened relative to it instead of walking from the root again. Every
// directory is still opened through the tree, component by component,
// without following links.
struct Extraction {
    std::vector<char> buffer = std::vector<char>(64 * 1024);
    std::vector<char> input = std::vector<char>(64 * 1024);
    std::set<std::string> directories;
    std::string heldName;
    datacenter::UniqueFd held;
    UpgradeBackup* backup = nullptr;  // set for an upgrade
};

bool writeAll(int out, const char* data, size_t length, std::string& problem) {
    for (size_t written = 0; written < length;) {
        const ssize_t n = ::write(out, data + written, length - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            problem = std::string("write error: ") + std::strerror(errno);
            return false;
        }
        written += static_cast<size_t>(n);
    }
    return true;
}

// Copies the entry's whole stream: the data must end exactly at the declared
// size and pass libzip's CRC check, which only happens at the end of the stream.
bool copyEntry(zip_file_t* in, int out, zip_uint64_t size, std::vector<char>& buffer, std::string& problem) {
    zip_uint64_t done = 0;
    for (;;) {
        const zip_int64_t got = zip_fread(in, buffer.data(), buffer.size());
        if (got < 0) {
            problem = zip_error_strerror(zip_file_get_error(in));
            return false;
        }
        if (got == 0) {
            break;
        }
        done += static_cast<zip_uint64_t>(got);
        if (done > size) {
            problem = "more data than declared";
            return false;
        }
        if (!writeAll(out, buffer.data(), static_cast<size_t>(got), problem)) {
            return false;
        }
    }
    if (done != size) {
        problem = "data ends before the declared size";
        return false;
    }
    return true;
}

struct Inflater {
    z_stream stream{};
    bool ready = inflateInit2(&stream, -MAX_WBITS) == Z_OK;
    ~Inflater() {
        if (ready) {
            inflateEnd(&stream);
        }
    }
};

// Inflates the raw bytes of a deflated entry into `out`. Unlike libzip's
// reader it notices a stream that ends before the compressed data does
// (bytes hidden behind it) or runs past it, and output beyond the declared
// size as soon as it appears; the CRC is checked at the end.
bool inflateEntry(zip_file_t* in, int out, const Entry& entry, Extraction& extraction, std::string& problem) {
    Inflater inflater;
    z_stream& stream = inflater.stream;
    zip_uint64_t done = 0;
    uLong crc = crc32(0L, Z_NULL, 0);
    bool ended = false;
    problem = inflater.ready ? "" : "zlib cannot start";
    while (problem.empty() && !ended) {
        const zip_int64_t got = zip_fread(in, extraction.input.data(), extraction.input.size());
        if (got <= 0) {
            problem = got < 0 ? zip_error_strerror(zip_file_get_error(in)) : "its compressed data ends early";
            break;
        }
        stream.next_in = reinterpret_cast<Bytef*>(extraction.input.data());
        stream.avail_in = static_cast<uInt>(got);
        do {
            stream.next_out = reinterpret_cast<Bytef*>(extraction.buffer.data());
            stream.avail_out = static_cast<uInt>(extraction.buffer.size());
            const int rc = inflate(&stream, Z_NO_FLUSH);
            const size_t produced = extraction.buffer.size() - stream.avail_out;
            done += produced;
            crc = crc32(crc, reinterpret_cast<const Bytef*>(extraction.buffer.data()), static_cast<uInt>(produced));
            ended = rc == Z_STREAM_END;
            if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) {
                problem = "its compressed data is invalid";
            } else if (done > entry.size) {
                problem = "more data than declared";
            } else {
                writeAll(out, extraction.buffer.data(), produced, problem);
            }
        } while (problem.empty() && !ended && stream.avail_out == 0);
    }
    if (problem.empty() && (stream.avail_in != 0 || zip_fread(in, extraction.input.data(), 1) != 0)) {
        problem = "bytes follow the end of its compressed data";
    } else if (problem.empty() && done != entry.size) {
        problem = "data ends before the declared size";
    } else if (problem.empty() && crc != entry.crc) {
        problem = "CRC error";
    }
    return problem.empty();
}

// A descriptor of the directory `name` ("" for the destination itself),
// made with mode 0777 the first time; the extraction holds it.
int directoryFor(datacenter::PluginTree& tree, const std::string& name, const std::string& destDir,
                 Extraction& extraction) {
    if (extraction.held.valid() && extraction.heldName == name) {
        return extraction.held.get();
    }
    extraction.held.reset();
    if (extraction.backup && !name.empty() && extraction.directories.count(name) == 0 &&
        !extraction.backup->beforeDirectory(name)) {
        LOG(ERROR) << "unzip failed. cannot record the new directory " << destDir << "/" << name;
        return -1;
    }
    const int fd = tree.openDirectory(name, true, 0777);
    if (fd < 0) {
        LOG(ERROR) << "unzip failed. cannot create directory " << destDir << "/" << name << ": " << tree.lastError();
        return -1;
    }
    if (!name.empty() && extraction.directories.insert(name).second) {
        ::fchmod(fd, 0777);
    }
    extraction.held.reset(fd);
    extraction.heldName = name;
    return fd;
}

// The folders the unpacking made or added to, the destination included,
// flushed after their entries (a no-op unless each write is flushed).
bool flushFolders(datacenter::PluginTree& tree, const std::set<std::string>& folders) {
    if (datacenter::Durability::sMode() != datacenter::Durability::FSYNC) {
        return true;
    }
    bool ok = true;
    for (const std::string& name : folders) {
        const datacenter::UniqueFd folder(tree.openDirectory(name, false, 0));
        ok = folder.valid() && datacenter::Durability::sFolderChanged(folder.get()) && ok;
    }
    const datacenter::UniqueFd root(tree.openDirectory("", false, 0));
    return root.valid() && datacenter::Durability::sFolderChanged(root.get()) && ok;
}

bool extractEntry(zip_t* archive, datacenter::PluginTree& tree, const Entry& entry, const std::string& destDir,
                  Extraction& extraction) {
    if (entry.directory) {
        return directoryFor(tree, entry.name.substr(0, entry.name.size() - 1), destDir, extraction) >= 0;
    }
    const std::string dest = destDir + "/" + entry.name;
    const std::string::size_type slash = entry.name.rfind('/');
    const bool nested = slash != std::string::npos;
    const std::string leaf = nested ? entry.name.substr(slash + 1) : entry.name;
    const int directory = directoryFor(tree, nested ? entry.name.substr(0, slash) : std::string(), destDir, extraction);
    if (directory < 0) {
        return false;
    }
    const bool deflated = entry.method == ZIP_CM_DEFLATE;
    zip_file_t* in = zip_fopen_index(archive, entry.index, deflated ? ZIP_FL_COMPRESSED : 0);
    if (!in) {
        LOG(ERROR) << "unzip failed. cannot read entry " << entry.name << ": " << zip_strerror(archive);
        return false;
    }
    if (extraction.backup && !extraction.backup->beforeFile(directory, entry.name)) {
        LOG(ERROR) << "unzip failed. cannot move the installed " << dest << " aside";
        zip_fclose(in);
        return false;
    }
    const int out = openDestination(tree, directory, leaf, dest);
    if (out < 0) {
        zip_fclose(in);
        return false;
    }
    std::string problem;
    bool ok = deflated ? inflateEntry(in, out, entry, extraction, problem)
                       : copyEntry(in, out, entry.size, extraction.buffer, problem);
    ::fchmod(out, 0777);
    ok = datacenter::Durability::sFileWritten(out) && ok;
    ok = ::close(out) == 0 && ok;
    zip_fclose(in);
    if (!ok) {
        LOG(ERROR) << "unzip failed. cannot write " << dest << ": " << (problem.empty() ? "close failed" : problem);
        tree.remove(entry.name);
    }
    return ok;
}

// Decides for one entry of the walk of sGetFilesPath: records it unless it
// is ignored, a dangling link or too long a path to be used again, and walks
// into directories. Links are recorded but never walked: they could lead out
// of the plugin or in a circle.
datacenter::TreeRemoval::Decision recordEntry(const datacenter::TreeRemoval::Entry& entry,
                                              std::vector<std::string>& files,
                                              const std::map<std::string, bool>& ignore) {
    using datacenter::TreeRemoval;
    if (ignore.count(entry.path) != 0) {
        return TreeRemoval::KEEP;
    }
    if (entry.path.size() >= PATH_MAX) {
        LOG(WARNING) << "record Init Files: path too long, not recorded: " << entry.path.substr(0, 256) << "...";
        return TreeRemoval::KEEP;
    }
    struct stat target;
    if (entry.kind == TreeRemoval::LINK && fstatat(entry.dirFd, entry.name.c_str(), &target, 0) != 0) {
        LOG(WARNING) << "record Init Files: dangling link, not recorded: " << entry.path;
        return TreeRemoval::KEEP;
    }
    files.push_back(entry.path);
    return entry.kind == TreeRemoval::DIRECTORY ? TreeRemoval::ENTER : TreeRemoval::KEEP;
}

}  // namespace

std::string PackageFiles::sStagingDir() {
    const std::string root = PluginManager::sGetPluginRootPath();
    const std::string name =
        InstallAction::sLocalInstallTmpDir.substr(0, InstallAction::sLocalInstallTmpDir.size() - 1);
    if (!datacenter::Directory::sExists(root)) {
        datacenter::Directory::sCreateDirectory(root);
    }
    datacenter::PluginTree tree(root);
    int fd = tree.openDirectory(name, true, 0700);
    if (fd < 0 && tree.isLink(name)) {
        // Someone put a link where the folder belongs: remove the link itself.
        tree.remove(name);
        fd = tree.openDirectory(name, true, 0700);
    }
    struct stat st;
    const bool owned = fd >= 0 && fstat(fd, &st) == 0 && st.st_uid == geteuid();
    const bool closed = owned && fchmod(fd, 0700) == 0;
    if (fd >= 0) {
        close(fd);
    }
    if (!closed) {
        LOG(ERROR) << "cannot prepare the staging folder " << root << InstallAction::sLocalInstallTmpDir << ": "
                   << (fd < 0 ? tree.lastError() : std::string("it belongs to someone else"));
        return std::string();
    }
    return root + InstallAction::sLocalInstallTmpDir;
}

void PackageFiles::sLogSignRefusal(const char* who, int code, int err) {
    if (code == 0) {
        return;
    }
    std::string reason = packagesign::describeResult(code);
    if ((code == packagesign::kWriteFailed || code == packagesign::kUnreadableFile) && err != 0) {
        reason += std::string(" (") + std::strerror(err) + ")";
    }
    LOG(ERROR) << who << " package refused: " << reason;
}

ApiErrorCode PackageFiles::sPutPackageToTmpDir(const std::string& package, std::string& tmpDir, std::string& zipPath) {
    if (package.empty()) {
        LOG(ERROR) << "installFromLocal para is EMPTY!!";
        return API_EMPTY_ARGUMENT;
    }
    if (!datacenter::File::sExists(package)) {
        return API_PACKAGE_NOT_EXIST;
    }
    tmpDir = sStagingDir();
    if (tmpDir.empty()) {
        return API_VERIFY_SIGN_FAILED;
    }
    zipPath = tmpDir + "korvia.zip";
    errno = 0;
    const int code = verifyPackage(package, zipPath, tmpDir + "dev", InstallAction::sCaCertPath());
    const int err = errno;
    LOG(INFO) << "installFromLocal signCode is " << code;
    sLogSignRefusal("installFromLocal", code, err);
    return code == 0 ? API_SUCCESS : API_VERIFY_SIGN_FAILED;
}

std::string PackageFiles::sGetIdFromPackage(const std::string& zipPath) {
    const datacenter::UniqueFd fd(openForReading(zipPath));
    return fd.valid() ? sGetIdFromPayload(fd.get(), UINT64_MAX, zipPath) : std::string();
}

std::string PackageFiles::sReadPayloadManifest(int fd, uint64_t size, const std::string& label) {
    // Only the manifest is read here; whether the archive may be unpacked is
    // the unpacking step's to say (2529), with its reason.
    UnpackArchive unpack;
    ArchiveLayout layout;
    std::string problem;
    openPayload(fd, size, unpack, layout, problem);
    if (!unpack.archive) {
        LOG(ERROR) << "getIdFromPackage unzip failed. zip open error. error is " << unpack.openError << "\npath is "
                   << label;
        LOG(ERROR) << "getIdFromPackage: the payload is no readable zip archive: " << problem;
        return std::string();
    }
    // The name as bytes: a name such as "manifest\0x" is not the manifest.
    zip_uint64_t index = 0;
    while (index < layout.entries.size() && layout.entries[index].name != "manifest") {
        ++index;
    }
    if (index == layout.entries.size() || layout.entries[index].size > kMaxManifestBytes) {
        return std::string();
    }
    std::string text(layout.entries[index].size, '\0');
    zip_file_t* entry = zip_fopen_index(unpack.archive.get(), index, 0);
    if (!entry) {
        return std::string();
    }
    const zip_int64_t got = zip_fread(entry, &text[0], text.size());
    zip_fclose(entry);
    if (got < 0 || static_cast<size_t>(got) != text.size()) {
        return std::string();
    }
    return text;
}

std::string PackageFiles::sReadPackageManifest(const std::string& zipPath) {
    const datacenter::UniqueFd fd(openForReading(zipPath));
    return fd.valid() ? sReadPayloadManifest(fd.get(), UINT64_MAX, zipPath) : std::string();
}

std::string PackageFiles::sGetIdFromPayload(int fd, uint64_t size, const std::string& label) {
    const std::string text = sReadPayloadManifest(fd, size, label);
    if (text.empty()) {
        return std::string();
    }
    LOG(INFO) << "config file contents:" << text;
    const std::string id = datacenter::ConfigInfo::sGetInstance()->getConfigFromString(text, "plugin_id");
    LOG(INFO) << "getIdFromPackage id is " << id;
    return id;
}

bool PackageFiles::sUnzip(const std::string& zipPath, const std::string& destDir, UpgradeBackup* backup) {
    const datacenter::UniqueFd fd(openForReading(zipPath));
    return fd.valid() && sUnzipPayload(fd.get(), UINT64_MAX, zipPath, destDir, backup);
}

bool PackageFiles::sUnzipPayload(int fd, uint64_t size, const std::string& label, const std::string& destDir,
                                 UpgradeBackup* backup) {
    if (destDir.empty()) {
        return false;
    }
    datacenter::Directory::sCreateDirectory(destDir);
    UnpackArchive unpack;
    ArchiveLayout layout;
    std::string problem;
    openPayload(fd, size, unpack, layout, problem);
    zip_t* const archive = unpack.archive.get();
    if (!archive) {
        LOG(ERROR) << "unzip Function failed. zip open error. error is " << unpack.openError;
        LOG(ERROR) << "path is " << label;
    }
    if (!problem.empty()) {
        LOG(ERROR) << "unzip refused: the archive is malformed or unsupported: " << problem;
    }
    if (!archive || !problem.empty()) {
        return false;
    }
    std::vector<Entry> entries;
    if (!collectEntries(archive, layout, destDir, entries)) {
        return false;
    }
    datacenter::PluginTree tree(destDir);
    if (!tree.isOpen()) {
        LOG(ERROR) << "unzip failed. cannot open " << destDir << ": " << tree.lastError();
        return false;
    }
    Extraction extraction;
    extraction.backup = backup;
    for (const Entry& entry : entries) {
        if (!extractEntry(archive, tree, entry, destDir, extraction)) {
            return false;
        }
    }
    extraction.held.reset();
    return flushFolders(tree, extraction.directories);
}

std::map<std::string, bool> PackageFiles::sGetIgnoreFiles(const std::string& dataDir) {
    std::map<std::string, bool> ignore;
    for (const char* name : {"proc", "userdata", "dev", "lib", "bin", "extdisks", "tmp", "cache_dir"}) {
        ignore[dataDir + name] = false;
    }
    return ignore;
}

bool PackageFiles::sGetFilesPath(const std::string& path, std::vector<std::string>& files,
                                 const std::map<std::string, bool>& ignore) {
    using datacenter::TreeRemoval;
    struct stat st;
    if (path.empty() || stat(path.c_str(), &st) != 0) {
        LOG(INFO) << "File path Do Not exist\n";
        return false;
    }
    files.push_back(path);
    // A trailing "/" would let the look follow a link in the last component.
    std::string plain = path;
    while (plain.size() > 1 && plain.back() == '/') {
        plain.pop_back();
    }
    if (TreeRemoval::sKindAt(AT_FDCWD, plain) != TreeRemoval::DIRECTORY) {
        return true;
    }
    const datacenter::UniqueFd dir = TreeRemoval::sOpenDirectory(path);
    TreeRemoval::Rules rules;
    rules.decide = [&files, &ignore](const TreeRemoval::Entry& entry) { return recordEntry(entry, files, ignore); };
    std::string error = "cannot open " + path;
    if (!dir.valid() || !TreeRemoval::sWalk(dir.get(), path, rules, error)) {
        LOG(ERROR) << "record Init Files: " << error;
        return false;
    }
    return true;
}

std::string PackageFiles::sPackageArchiveDir() {
    const std::string dir = datacenter::RootPrefix::sPath("/userdisk/appdata/app_package/");
    if (!datacenter::Directory::sExists(dir)) {
        datacenter::Directory::sCreateDirectory(dir);
    }
    return dir;
}
