#include "system/ConfigInfo.h"

#include <fcntl.h>
#include <glog/logging.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/FileStamp.h"
#include "storage/PluginTree.h"
#include "storage/TreeRemoval.h"
#include "system/LibconfigFile.h"
#include "system/RootPrefix.h"

namespace datacenter {
namespace {

const char* const kGlobalFileName = "config.cfg";

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

std::string ConfigInfo::sGlobalFileIn(const UniqueFd& folder) {
    return PluginTree::sPinnedPath(folder.get(), kGlobalFileName);
}

void ConfigInfo::refreshGlobalLocked() {
    const UniqueFd folder = openConfigFolder();
    const std::string path = sGlobalFileIn(folder);
    FileStamp stamp;
    if (!folder.valid() || !FileStamp::sOf(path, stamp)) {
        globalLoaded_ = false;
        return;
    }
    if (globalLoaded_ && stamp == globalStamp_ && !stamp.isRacy(time(nullptr))) {
        return;
    }
    std::string error;
    ++globalReads_;
    globalLoaded_ = LibconfigFile::sRead(config_, path, error);
    if (!globalLoaded_) {
        LOG(ERROR) << "parse config file error :" << error << "\npath is " << globalConfigPath;
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
        LibconfigFile::sWrite(config_, sGlobalFileIn(folder));
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
    if (File::sExists(sGlobalFileIn(folder))) {
        boost::mutex::scoped_lock lock(configMutex_);
        loadGlobalFileLocked(folder);
    }
}

void ConfigInfo::loadGlobalFileLocked(const UniqueFd& folder) {
    const std::string path = sGlobalFileIn(folder);
    globalLoaded_ = false;
    try {
        // Stamped before the read: a change while reading makes the next lookup read again.
        FileStamp stamp;
        const bool stamped = FileStamp::sOf(path, stamp);
        LibconfigFile::sReadPlain(config_, path);
        ++globalReads_;
        globalStamp_ = stamp;
        globalLoaded_ = stamped;
    } catch (const libconfig::ParseException& e) {
        LOG(ERROR) << "parse config file error at :" << e.getLine() << " - " << e.getError() << "\npath is "
                   << globalConfigPath;
        fixDamagedFile(path);
        std::string error;
        LibconfigFile::sRead(config_, path, error);
    } catch (const std::exception&) {
        LOG(ERROR) << "open config file error;";
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
