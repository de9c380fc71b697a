#include "system/ConfigInfo.h"

#include <glog/logging.h>

#include <ctime>

#include "storage/Directory.h"
#include "storage/File.h"
#include "storage/FileStamp.h"
#include "system/LibconfigFile.h"
#include "system/RootPrefix.h"

namespace datacenter {

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

void ConfigInfo::refreshGlobalLocked() {
    FileStamp stamp;
    if (!FileStamp::sOf(globalConfigPath, stamp)) {
        globalLoaded_ = false;
        return;
    }
    if (globalLoaded_ && stamp == globalStamp_ && !stamp.isRacy(time(nullptr))) {
        return;
    }
    std::string error;
    ++globalReads_;
    globalLoaded_ = LibconfigFile::sRead(config_, globalConfigPath, error);
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
        LibconfigFile::sSetString(config_, key, value);
        LOG(INFO) << "write file:" << globalConfigPath;
        LibconfigFile::sWrite(config_, globalConfigPath);
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
    Directory::sDelete(configRoot + "/DataBase/", true);
    Directory::sDelete(getUserdiskRootPath() + "/.thumbnails/", true);
    if (File::sExists(globalConfigPath)) {
        boost::mutex::scoped_lock lock(configMutex_);
        loadGlobalFileLocked();
    }
}

void ConfigInfo::loadGlobalFileLocked() {
    globalLoaded_ = false;
    try {
        // Stamped before the read: a change while reading makes the next lookup read again.
        FileStamp stamp;
        const bool stamped = FileStamp::sOf(globalConfigPath, stamp);
        LibconfigFile::sReadPlain(config_, globalConfigPath);
        ++globalReads_;
        globalStamp_ = stamp;
        globalLoaded_ = stamped;
    } catch (const libconfig::ParseException& e) {
        LOG(ERROR) << "parse config file error at :" << e.getLine() << " - " << e.getError() << "\npath is "
                   << globalConfigPath;
        fixDamagedFile(globalConfigPath);
        std::string error;
        LibconfigFile::sRead(config_, globalConfigPath, error);
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
