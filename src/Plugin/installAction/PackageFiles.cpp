#include "Plugin/installAction/PackageFiles.h"

#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <boost/filesystem.hpp>
#include <cstdio>
#include <memory>
#include <set>

#include "Plugin/PluginManager.h"
#include "Plugin/installAction/InstallAction.h"
#include "sign/PackageSign.h"
#include "storage/Directory.h"
#include "storage/File.h"
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

struct Entry {
    zip_uint64_t index;
    std::string name;
    zip_uint64_t size;
};

bool climbsOut(const std::string& name) {
    if (name.empty() || name[0] == '/' || name.back() == '/') {
        return true;
    }
    std::string::size_type start = 0;
    while (start <= name.size()) {
        const std::string::size_type end = std::min(name.find('/', start), name.size());
        if (name.compare(start, end - start, "..") == 0 && end - start == 2) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

bool isLink(zip_t* archive, zip_uint64_t index) {
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    if (zip_file_get_external_attributes(archive, index, 0, &system, &attributes) != 0) {
        return false;
    }
    return system == ZIP_OPSYS_UNIX && ((attributes >> 16) & S_IFMT) == S_IFLNK;
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
        const std::string name = st.name;
        if (climbsOut(name) || isLink(archive, i) || !names.insert(name).second) {
            LOG(ERROR) << "unzip refused: unsafe archive entry '" << name << "'";
            return false;
        }
        total += st.size;
        entries.push_back({static_cast<zip_uint64_t>(i), name, st.size});
    }
    const uint64_t available = datacenter::File::sGetDiskSpaceInfo(destDir).available;
    if (total + datacenter::File::sCopyReserveBytes > available) {
        LOG(ERROR) << "unzip refused: " << total << " bytes would not leave the reserve free, available is "
                   << available << " byte";
        return false;
    }
    return true;
}

// Whether `path` can be put on a shell command line as it is.
bool isShellSafe(const std::string& path) {
    return path.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+,@=~") ==
           std::string::npos;
}

FILE* openDestination(const std::string& dest) {
    FILE* out = fopen(dest.c_str(), "w");
    if (out) {
        return out;
    }
    // A running plugin may hold the file: free it once and try again.
    LOG(ERROR) << "file busy. desFile is" << dest;
    if (isShellSafe(dest)) {
        CommonUtils::sCallSystem("fuser -k " + dest);
    }
    usleep(100);
    out = fopen(dest.c_str(), "w");
    if (!out) {
        LOG(ERROR) << "unzip failed. create file error. desFile is" << dest;
    }
    return out;
}

bool extractEntry(zip_t* archive, const Entry& entry, const std::string& destDir) {
    const std::string dest = destDir + "/" + entry.name;
    const std::string::size_type slash = entry.name.rfind('/');
    if (slash != std::string::npos) {
        datacenter::Directory::sCreateDirectory(destDir + "/" + entry.name.substr(0, slash));
    }
    zip_file_t* in = zip_fopen_index(archive, entry.index, 0);
    if (!in) {
        LOG(ERROR) << "unzip failed. cannot read entry " << entry.name;
        return false;
    }
    FILE* out = openDestination(dest);
    if (!out) {
        zip_fclose(in);
        return false;
    }
    char buffer[1024];
    zip_uint64_t done = 0;
    bool ok = true;
    while (ok && done < entry.size) {
        const zip_int64_t got = zip_fread(in, buffer, sizeof(buffer));
        ok = got > 0 && fwrite(buffer, 1, static_cast<size_t>(got), out) == static_cast<size_t>(got);
        done += got > 0 ? static_cast<zip_uint64_t>(got) : 0;
    }
    ok = fclose(out) == 0 && ok;
    zip_fclose(in);
    chmod(dest.c_str(), 0777);
    if (!ok) {
        LOG(ERROR) << "unzip failed. cannot write " << dest;
    }
    return ok;
}

}  // namespace

ApiErrorCode PackageFiles::sPutPackageToTmpDir(const std::string& package, std::string& tmpDir, std::string& zipPath) {
    if (package.empty()) {
        LOG(ERROR) << "installFromLocal para is EMPTY!!";
        return API_EMPTY_ARGUMENT;
    }
    if (!datacenter::File::sExists(package)) {
        return API_PACKAGE_NOT_EXIST;
    }
    tmpDir = PluginManager::sGetPluginRootPath() + InstallAction::sLocalInstallTmpDir;
    if (!datacenter::Directory::sExists(tmpDir)) {
        datacenter::Directory::sCreateDirectory(tmpDir);
    }
    zipPath = tmpDir + "korvia.zip";
    const int code = verifyPackage(package, zipPath, tmpDir + "dev", InstallAction::sCaCertPath());
    LOG(INFO) << "installFromLocal signCode is " << code;
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
    Archive archive(zip_open(zipPath.c_str(), 0, &err));
    if (err != 0 || !archive) {
        LOG(ERROR) << "unzip Function failed. zip open error. error is " << err;
        LOG(ERROR) << "path is " << zipPath;
        return false;
    }
    std::vector<Entry> entries;
    if (!collectEntries(archive.get(), destDir, entries)) {
        return false;
    }
    for (const Entry& entry : entries) {
        if (!extractEntry(archive.get(), entry, destDir)) {
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
    boost::system::error_code ec;
    const fs::file_status status = fs::status(path, ec);
    if (status.type() == fs::file_not_found || status.type() == fs::status_error) {
        LOG(INFO) << "File path Do Not exist\n";
        return false;
    }
    files.push_back(path);
    // Links are recorded but never walked: they could lead out of the plugin or in a circle.
    if (!fs::is_directory(fs::symlink_status(path, ec))) {
        return true;
    }
    for (fs::directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string entry = it->path().string();
        if (ignore.count(entry) == 0 && !sGetFilesPath(entry, files, ignore)) {
            return false;
        }
    }
    return !ec;
}

std::string PackageFiles::sPackageArchiveDir() {
    const std::string dir = datacenter::RootPrefix::sPath("/userdisk/appdata/app_package/");
    if (!datacenter::Directory::sExists(dir)) {
        datacenter::Directory::sCreateDirectory(dir);
    }
    return dir;
}
