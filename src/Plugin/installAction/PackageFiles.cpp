#include "Plugin/installAction/PackageFiles.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include "Plugin/PluginManager.h"
#include "Plugin/installAction/InstallAction.h"
#include "common/ShellArgument.h"
#include "sign/PackageSign.h"
#include "storage/Directory.h"
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
};

void openForUnpacking(const std::string& zipPath, UnpackArchive& out, int& err) {
    err = ZIP_ER_OPEN;
    FILE* file = std::fopen(zipPath.c_str(), "rbe");
    if (!file) {
        return;
    }
    std::setvbuf(file, out.buffer.data(), _IOFBF, out.buffer.size());
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* source = zip_source_filep_create(file, 0, -1, &error);
    if (!source) {
        std::fclose(file);
    } else {
        out.archive.reset(zip_open_from_source(source, ZIP_RDONLY, &error));
        if (!out.archive) {
            zip_source_free(source);
        }
    }
    err = out.archive ? 0 : zip_error_code_zip(&error);
    zip_error_fini(&error);
}

struct Entry {
    zip_uint64_t index;
    std::string name;
    zip_uint64_t size;
    bool directory;
};

// A name as it can go into one log line: control characters as "\xNN".
std::string printable(const std::string& name) {
    std::string out;
    for (const char c : name) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            char hex[8];
            snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
            out += hex;
        } else {
            out += c;
        }
    }
    return out;
}

// The file type an archive records for an entry made on a Unix system, or 0.
mode_t unixType(zip_t* archive, zip_uint64_t index) {
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    if (zip_file_get_external_attributes(archive, index, 0, &system, &attributes) != 0 || system != ZIP_OPSYS_UNIX) {
        return 0;
    }
    return (attributes >> 16) & S_IFMT;
}

// Why an entry cannot be unpacked, or "" when it can. Directory entries
// (names ending in "/", as zip -r, 7-Zip and bsdtar write them) become
// directories; links and special files are never made.
std::string entryProblem(zip_t* archive, zip_uint64_t index, const zip_stat_t& st, std::set<std::string>& names) {
    const std::string name = st.name;
    // libzip shows names in code page 437 as their Unicode look-alikes; the bytes as stored must be clean too.
    const char* raw = zip_get_name(archive, index, ZIP_FL_ENC_RAW);
    if (!raw || !datacenter::PluginTree::sIsSafeName(raw) || !datacenter::PluginTree::sIsSafeName(name)) {
        return "its name is absolute, climbs out, or holds a backslash or control character";
    }
    const bool directory = name.back() == '/';
    const mode_t type = unixType(archive, index);
    if (type == S_IFLNK) {
        return "it is a symbolic link";
    }
    if (type != 0 && type != (directory ? S_IFDIR : S_IFREG)) {
        return "it is neither a plain file nor a directory";
    }
    if (directory && st.size != 0) {
        return "a directory entry carries data";
    }
    if (!names.insert(directory ? name.substr(0, name.size() - 1) : name).second) {
        return "its name appears twice";
    }
    return std::string();
}

// The entries to unpack, or false when the archive must be refused as a whole.
bool collectEntries(zip_t* archive, const std::string& destDir, std::vector<Entry>& entries) {
    std::set<std::string> names;
    zip_uint64_t total = 0;
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        zip_stat_t st;
        zip_stat_init(&st);
        if (zip_stat_index(archive, i, 0, &st) != 0 || !st.name) {
            continue;
        }
        const std::string problem = entryProblem(archive, i, st, names);
        if (!problem.empty()) {
            LOG(ERROR) << "unzip refused: unsafe archive entry '" << printable(st.name) << "': " << problem;
            return false;
        }
        total += st.size;
        const std::string name = st.name;
        entries.push_back({static_cast<zip_uint64_t>(i), name, st.size, name.back() == '/'});
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
    std::set<std::string> directories;
    std::string heldName;
    datacenter::UniqueFd held;
};

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
        for (zip_int64_t written = 0; written < got;) {
            const ssize_t n = ::write(out, buffer.data() + written, static_cast<size_t>(got - written));
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                problem = std::string("write error: ") + std::strerror(errno);
                return false;
            }
            written += n;
        }
    }
    if (done != size) {
        problem = "data ends before the declared size";
        return false;
    }
    return true;
}

// A descriptor of the directory `name` ("" for the destination itself),
// made with mode 0777 the first time; the extraction holds it.
int directoryFor(datacenter::PluginTree& tree, const std::string& name, const std::string& destDir,
                 Extraction& extraction) {
    if (extraction.held.valid() && extraction.heldName == name) {
        return extraction.held.get();
    }
    extraction.held.reset();
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
    zip_file_t* in = zip_fopen_index(archive, entry.index, 0);
    if (!in) {
        LOG(ERROR) << "unzip failed. cannot read entry " << entry.name << ": " << zip_strerror(archive);
        return false;
    }
    const int out = openDestination(tree, directory, leaf, dest);
    if (out < 0) {
        zip_fclose(in);
        return false;
    }
    std::string problem;
    bool ok = copyEntry(in, out, entry.size, extraction.buffer, problem);
    ::fchmod(out, 0777);
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
    if (!datacenter::File::sExists(zipPath)) {
        return std::string();
    }
    int err = 0;
    Archive archive(zip_open(zipPath.c_str(), 0, &err));
    if (err != 0 || !archive) {
        LOG(ERROR) << "getIdFromPackage unzip failed. zip open error. error is " << err << "\npath is " << zipPath;
        return std::string();
    }
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat(archive.get(), "manifest", 0, &st) != 0 || st.size > kMaxManifestBytes) {
        return std::string();
    }
    std::string text(st.size, '\0');
    zip_file_t* entry = zip_fopen(archive.get(), "manifest", 0);
    if (!entry) {
        return std::string();
    }
    const zip_int64_t got = zip_fread(entry, &text[0], st.size);
    zip_fclose(entry);
    if (got < 0 || static_cast<zip_uint64_t>(got) != st.size) {
        return std::string();
    }
    LOG(INFO) << "config file contents:" << text;
    const std::string id = datacenter::ConfigInfo::sGetInstance()->getConfigFromString(text, "plugin_id");
    LOG(INFO) << "getIdFromPackage id is " << id;
    return id;
}

bool PackageFiles::sUnzip(const std::string& zipPath, const std::string& destDir) {
    if (!datacenter::File::sExists(zipPath) || destDir.empty()) {
        return false;
    }
    datacenter::Directory::sCreateDirectory(destDir);
    int err = 0;
    UnpackArchive unpack;
    openForUnpacking(zipPath, unpack, err);
    zip_t* const archive = unpack.archive.get();
    if (err != 0 || !archive) {
        LOG(ERROR) << "unzip Function failed. zip open error. error is " << err;
        LOG(ERROR) << "path is " << zipPath;
        return false;
    }
    std::vector<Entry> entries;
    if (!collectEntries(archive, destDir, entries)) {
        return false;
    }
    datacenter::PluginTree tree(destDir);
    if (!tree.isOpen()) {
        LOG(ERROR) << "unzip failed. cannot open " << destDir << ": " << tree.lastError();
        return false;
    }
    Extraction extraction;
    for (const Entry& entry : entries) {
        if (!extractEntry(archive, tree, entry, destDir, extraction)) {
            return false;
        }
    }
    return true;
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
