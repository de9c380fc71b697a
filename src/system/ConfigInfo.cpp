#include "system/ConfigInfo.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/FileStamp.h"
#include "storage/PlainFile.h"
#include "storage/TreeRemoval.h"
#include "system/LibconfigFile.h"
#include "system/RootPrefix.h"

namespace datacenter {
namespace {

const char* const kGlobalFileName = "config.cfg";
// The bound the settings reader uses for every settings file.
const size_t kMaxGlobalBytes = 16 * 1024 * 1024;

}  // namespace

ConfigInfo* ConfigInfo::sGetInstance() {
    static ConfigInfo instance;
    return &instance;
}

ConfigInfo::~ConfigInfo() = default;

std::string ConfigInfo::getConfig(const std::string& key) {
    LOG(INFO) << "getConfig begin,key:" << key << " globalConfigPath:" << globalConfigPath;
    boost::mutex::scoped_lock lock(configMutex_);
    refreshGlobalLocked();
    try {
        LOG(INFO) << "config_.getRoot()!";
        std::string value;
        if (config_.getRoot().lookupValue(key, value)) {
            LOG(INFO) << "return is " << value;
            return value;
        }
        LOG(INFO) << "return empty!";
    } catch (const std::exception& e) {
        LOG(ERROR) << "save config file error: " << e.what();
    }
    return std::string();
}

UniqueFd ConfigInfo::openConfigFolder() const {
    std::string leaf;
    const UniqueFd parent = openParentFolder(configRoot, leaf);
    UniqueFd folder(
        parent.valid() ? ::openat(parent.get(), leaf.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1);
    if (!folder.valid() && errno != ENOENT) {
        LOG(ERROR) << "the configuration folder " << configRoot << " is refused (" << strerror(errno)
                   << "): a link or something other than a folder stands in its place, and it is never followed";
    }
    return folder;
}

bool ConfigInfo::sStampGlobalFile(const UniqueFd& folder, FileStamp& stamp) {
    struct stat status;
    if (!folder.valid() || ::fstatat(folder.get(), kGlobalFileName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    stamp = FileStamp::sFrom(status);
    return true;
}

void ConfigInfo::refreshGlobalLocked() {
    // The file is reached through the folder's descriptor, never by a path
    // (in a sandbox without /proc, a path through the descriptor would not
    // even exist).
    const UniqueFd folder = openConfigFolder();
    FileStamp stamp;
    if (!sStampGlobalFile(folder, stamp)) {
        globalLoaded_ = false;
        return;
    }
    if (globalLoaded_ && stamp == globalStamp_ && !stamp.isRacy(time(nullptr))) {
        return;
    }
    ++globalReads_;
    try {
        LibconfigFile::sReadPlainAt(config_, folder.get(), kGlobalFileName);
        globalLoaded_ = true;
    } catch (const std::exception& e) {
        globalLoaded_ = false;
        LOG(ERROR) << "parse config file error :" << LibconfigFile::sDescribe(e) << "\npath is " << globalConfigPath;
    }
    globalStamp_ = stamp;
}

void ConfigInfo::setConfig(const std::string& key, const std::string& value) {
    LOG(INFO) << "setConfig begin,key:" << key << " value:" << value;
    boost::mutex::scoped_lock lock(configMutex_);
    // What is in memory now is not what the file held, whether the write works or not.
    globalLoaded_ = false;
    try {
        const UniqueFd folder = openConfigFolder();
        if (!folder.valid()) {
            LOG(ERROR) << "save config file error: the configuration folder cannot be used";
            return;
        }
        LibconfigFile::sSetString(config_, key, value);
        LOG(INFO) << "write file:" << globalConfigPath;
        LibconfigFile::sWriteAt(config_, folder.get(), kGlobalFileName);
        LOG(INFO) << "ConfigInfo setConfig end";
    } catch (const std::exception& e) {
        LOG(ERROR) << "save config file error: " << e.what();
    }
}

std::string ConfigInfo::getConfigFromFile(const std::string& path, const std::string& key) {
    boost::mutex::scoped_lock lock(configMutex_);
    return sGetConfigFromFile(path, key);
}

std::string ConfigInfo::sGetConfigFromFile(const std::string& path, const std::string& key) {
    try {
        libconfig::Config config;
        if (File::sExists(path)) {
            LibconfigFile::sReadPlain(config, path);
        }
        std::string value;
        config.getRoot().lookupValue(key, value);
        return value;
    } catch (const std::exception& e) {
        LOG(ERROR) << "getConfigFromFile error: " << LibconfigFile::sDescribe(e);
    }
    return std::string();
}

void ConfigInfo::setConfigToFile(const std::string& path, const std::string& key, const std::string& value) {
    boost::mutex::scoped_lock lock(configMutex_);
    try {
        libconfig::Config config;
        if (File::sExists(path)) {
            LibconfigFile::sReadPlain(config, path);
        }
        LibconfigFile::sSetString(config, key, value);
        LibconfigFile::sWrite(config, path);
    } catch (const std::exception& e) {
        LOG(ERROR) << "save config file error: " << LibconfigFile::sDescribe(e);
    }
}

std::vector<std::string> ConfigInfo::getListFromFile(const std::string& path, const std::string& key) {
    boost::mutex::scoped_lock lock(configMutex_);
    std::vector<std::string> values;
    try {
        libconfig::Config config;
        if (File::sExists(path)) {
            LibconfigFile::sReadPlain(config, path);
        }
        const libconfig::Setting& setting = config.getRoot()[key.c_str()];
        if (setting.isArray()) {
            for (int i = 0; i < setting.getLength(); ++i) {
                values.push_back(static_cast<const char*>(setting[i]));
            }
        }
    } catch (const std::exception&) {
        // A missing key or unreadable file simply yields what was gathered.
    }
    return values;
}

std::string ConfigInfo::getConfigFromString(const std::string& text, const std::string& key) {
    try {
        libconfig::Config config;
        LibconfigFile::sReadPlainString(config, text, "text");
        std::string value;
        if (config.getRoot().lookupValue(key, value)) {
            LOG(INFO) << "return is" << value;
            return value;
        }
    } catch (const std::exception& e) {
        LOG(ERROR) << "getConfigFromString error: " << LibconfigFile::sDescribe(e);
    }
    return std::string();
}

void ConfigInfo::fixDamagedFile(const std::string& path) {
    if (!File::sExists(path)) {
        return;
    }
    const std::string surviving = LibconfigFile::sLongestParsablePrefix(path);
    if (!File::sWriteAtomically(path, surviving + "\n")) {
        LOG(ERROR) << "Fix config exception!! ";
    }
}

void ConfigInfo::init() {
    if (!Directory::sExists(configRoot)) {
        const ErrorCode created = Directory::sCreateDirectory(configRoot);
        if (!created.ok()) {
            LOG(ERROR) << "create " << configRoot << " failed: " << created.systemError().message();
            return;
        }
    }
    Directory::sDelete(getUserdiskRootPath() + "/.thumbnails", true);
    const UniqueFd folder = openConfigFolder();
    if (!folder.valid()) {
        return;
    }
    std::string error;
    if (!TreeRemoval::sRemoveAt(folder.get(), "DataBase", error)) {
        LOG(ERROR) << "cannot remove " << configRoot << "/DataBase/: " << error;
    }
    FileStamp present;
    if (sStampGlobalFile(folder, present)) {
        boost::mutex::scoped_lock lock(configMutex_);
        loadGlobalFileLocked(folder);
    }
}

void ConfigInfo::loadGlobalFileLocked(const UniqueFd& folder) {
    globalLoaded_ = false;
    try {
        // Stamped before the read: a change while reading makes the next lookup read again.
        FileStamp stamp;
        const bool stamped = sStampGlobalFile(folder, stamp);
        LibconfigFile::sReadPlainAt(config_, folder.get(), kGlobalFileName);
        ++globalReads_;
        globalStamp_ = stamp;
        globalLoaded_ = stamped;
    } catch (const libconfig::ParseException& e) {
        LOG(ERROR) << "parse config file error at :" << e.getLine() << " - " << e.getError() << "\npath is "
                   << globalConfigPath;
        repairGlobalFile(folder);
        try {
            LibconfigFile::sReadPlainAt(config_, folder.get(), kGlobalFileName);
        } catch (const std::exception&) {
        }
    } catch (const std::exception&) {
        LOG(ERROR) << "open config file error;";
    }
}

void ConfigInfo::repairGlobalFile(const UniqueFd& folder) {
    std::string content;
    std::string why;
    if (!PlainFile::sReadAt(folder.get(), kGlobalFileName, kMaxGlobalBytes, content, why)) {
        LOG(ERROR) << "config file " << globalConfigPath << " cannot be repaired: " << why;
        return;
    }
    const std::string surviving = LibconfigFile::sLongestParsablePrefixOf(content, globalConfigPath) + "\n";
    const bool written = File::sWriteAtomicallyAt(
        folder.get(), kGlobalFileName,
        [&surviving](FILE* stream) {
            return fwrite(surviving.data(), 1, surviving.size(), stream) == surviving.size();
        },
        0644);
    if (!written) {
        LOG(ERROR) << "Fix config exception!! ";
    }
}

std::string planformetPluginRootPath() {
    return ConfigInfo::sGetInstance()->getUserdiskRootPath() + ConfigInfo::sPluginRootDirectory;
}

std::string planformGetPluginControllorPath() {
    return "pluginControllor";
}

std::string planformBinPrefix() {
    return "/usr/bin/";
}

}  // namespace datacenter
