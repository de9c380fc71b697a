#include "storage/Directory.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstring>

#include "storage/File.h"
#include "storage/TreeRemoval.h"
#include "storage/UniqueFd.h"
#include "system/CommonUtils.h"
#include "system/RootPrefix.h"

namespace fs = boost::filesystem;

namespace datacenter {
namespace {

// The router's plugin user.
std::atomic<uid_t> gPluginUid{1000};
std::atomic<gid_t> gPluginGid{1000};

ErrorCode codeOfCopyResult(int result) {
    switch (result) {
        case File::sCopyFailed:
            return ErrorCode(API_FILE_OPEN_OR_WRITE_FAILED);
        case File::sCopyNoSpace:
            return ErrorCode(API_NO_SPACE);
        case File::sCopyInterrupted:
            return ErrorCode(API_COPY_INTERRUPTED);
        default:
            return ErrorCode();
    }
}

ErrorCode copyRegularFile(const fs::path& source, fs::path target) {
    // The duplicate-name rule can propose a name that is taken too (a name
    // that already ends in a group); keep counting until one is really free.
    for (int tries = 0; File::sExists(target.string()) && tries < 100000; ++tries) {
        target = CommonUtils::sGetDuplicateFileName(target.string());
    }
    if (File::sExists(target.string())) {
        return ErrorCode(API_FILE_OPEN_OR_WRITE_FAILED);
    }
    const ErrorCode copied = codeOfCopyResult(File::sRawCopyFile(source.string(), target.string()));
    if (!copied.ok()) {
        return copied;
    }
    const boost::system::error_code ec = copied.systemError();
    LOG(INFO) << "copy file error code :" << static_cast<bool>(ec) << " code message: " << ec.message()
              << " code value :" << ec.value();
    return ErrorCode(ec);
}

ErrorCode copyTree(const fs::path& source, const fs::path& target) {
    LOG(INFO) << "begin  copy directory source: " << source.string() << " target: " << target.string();
    boost::system::error_code ec;
    if (!fs::exists(fs::symlink_status(target, ec))) {
        fs::create_directories(target, ec);
        if (ec) {
            return ErrorCode(ec);
        }
        LOG(INFO) << "copy directory target path :" << target.string() << " created";
    }
    for (fs::directory_iterator it(source), end; it != end; ++it) {
        const fs::path newSource = source / it->path().filename();
        const fs::path newTarget = target / it->path().filename();
        LOG(INFO) << "copy directory new source: " << newSource.string();
        LOG(INFO) << "copy directory new target: " << newTarget.string();
        // Links are not followed: a tree must never copy what lies outside it.
        const fs::file_status status = fs::symlink_status(newSource, ec);
        ErrorCode result;
        if (fs::is_directory(status)) {
            result = copyTree(newSource, newTarget);
        } else if (fs::is_regular_file(status)) {
            result = copyRegularFile(newSource, newTarget);
        }
        if (!result.ok()) {
            return result;
        }
    }
    return ErrorCode();
}

bool createPrefix(const char* prefix, mode_t mode) {
    if (::mkdir(prefix, mode) == 0) {
        // Owner and mode go to the folder just made, through its descriptor:
        // a link put in its place meanwhile is not followed.
        const int fd = ::open(prefix, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            LOG(WARNING) << "make_dir: " << prefix << " was replaced as it was made";
            return false;
        }
        if (::fchown(fd, gPluginUid.load(), gPluginGid.load()) != 0) {
            LOG(WARNING) << "make_dir: cannot give " << prefix << " to the plugin user: " << strerror(errno);
        }
        ::fchmod(fd, mode);
        ::close(fd);
        return true;
    }
    struct stat st;
    return errno == EEXIST && ::stat(prefix, &st) == 0 && S_ISDIR(st.st_mode);
}

// Removes `path` with everything below it through the one tree walker: no
// link followed, no other file system entered. The folders leading to it are
// the caller's. A missing path is no failure.
ErrorCode removeTree(const std::string& path) {
    std::string leaf;
    const UniqueFd parent = openParentFolder(path, leaf);
    if (!parent.valid()) {
        const int err = errno;
        return err == ENOENT ? ErrorCode()
                             : ErrorCode(boost::system::error_code(err, boost::system::generic_category()));
    }
    std::string error;
    if (!TreeRemoval::sRemoveAt(parent.get(), leaf, error)) {
        LOG(ERROR) << "Directory::sDelete: " << error;
        return ErrorCode(boost::system::errc::make_error_code(boost::system::errc::io_error));
    }
    return ErrorCode();
}

}  // namespace

bool Directory::sExists(const std::string& path) {
    try {
        return fs::exists(fs::symlink_status(path));
    } catch (const std::exception& e) {
        LOG(ERROR) << "Directory::sExists, exception :" << e.what();
    } catch (...) {
        LOG(ERROR) << "Directory::sExists, exception ...";
    }
    return false;
}

bool Directory::sIsDirectory(const std::string& path) {
    try {
        boost::system::error_code ec;
        return fs::is_directory(fs::status(path, ec));
    } catch (const std::exception& e) {
        LOG(ERROR) << "Directory::sIsDirectory, exception :" << e.what();
    } catch (...) {
        LOG(ERROR) << "Directory::sIsDirectory, exception ...";
    }
    return false;
}

ErrorCode Directory::sCreateDirectory(const std::string& path) {
    if (path.empty()) {
        return ErrorCode(boost::system::errc::make_error_code(boost::system::errc::invalid_argument));
    }
    boost::system::error_code ec;
    fs::create_directories(path, ec);
    if (ec == boost::system::errc::no_space_on_device) {
        LOG(INFO) << "create directory " << path << ", No space left on device";
    }
    if (!RootPrefix::sIsRootItself(path)) {
        boost::system::error_code ignored;
        fs::permissions(path, fs::all_all, ignored);
    }
    return ErrorCode(ec);
}

int Directory::make_dir(char* path, mode_t mode) {
    LOG(INFO) << "make_dir path is " << path;
    char* p = path;
    while (*p == '/') {
        ++p;
    }
    while (*p != '\0') {
        while (*p != '\0' && *p != '/') {
            ++p;
        }
        while (*p == '/') {
            ++p;
        }
        const char cut = *p;
        *p = '\0';
        const bool created = createPrefix(path, mode);
        if (!created) {
            LOG(INFO) << "make_dir: cannot create directory " << path;
        }
        *p = cut;
        if (!created) {
            return -1;
        }
    }
    return 0;
}

ErrorCode Directory::sDelete(const std::string& path, bool recursive) {
    if (RootPrefix::sIsRootItself(path)) {
        LOG(ERROR) << "Directory::sDelete refuses to remove '" << path << "'";
        return ErrorCode(boost::system::errc::make_error_code(boost::system::errc::operation_not_permitted));
    }
    if (recursive) {
        return removeTree(path);
    }
    try {
        boost::system::error_code ec;
        fs::remove(path, ec);
        return ErrorCode(ec);
    } catch (const fs::filesystem_error& e) {
        LOG(ERROR) << "Directory::sDelete catch exception: " << e.what();
        return ErrorCode(e.code());
    }
}

ErrorCode Directory::sCopyDirectory(const std::string& source, const std::string& target) {
    try {
        return copyTree(source, target);
    } catch (const std::exception& e) {
        LOG(ERROR) << "Directory::sCopyDirectory, exception : " << e.what();
    } catch (...) {
        LOG(ERROR) << "Directory::sCopyDirectory, exception ... ";
    }
    return ErrorCode(API_GENERAL_FAILURE);
}

std::vector<std::string> Directory::sListEntries(const std::string& path) {
    std::vector<std::string> entries;
    if (!sExists(path)) {
        return entries;
    }
    try {
        for (fs::directory_iterator it(path), end; it != end; ++it) {
            const std::string name = it->path().filename().string();
            boost::system::error_code ec;
            const fs::file_status status = fs::status(it->path(), ec);
            if (!name.empty() && name[0] != '.' && (fs::is_regular_file(status) || fs::is_directory(status))) {
                entries.push_back(it->path().string());
            }
        }
    } catch (const std::exception& e) {
        LOG(ERROR) << "get folders error: " << e.what();
    }
    return entries;
}

void Directory::sSetPluginOwner(uid_t uid, gid_t gid) {
    gPluginUid = uid;
    gPluginGid = gid;
}

}  // namespace datacenter
