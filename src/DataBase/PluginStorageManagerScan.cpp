// Reading manifests and keeping the cache in step with the store directory:
// one parse per manifest version, and after a change only the entries whose
// own stamp moved are parsed again.
#include <dirent.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <libconfig.h++>
#include <limits>
#include <utility>
#include <vector>

#include "DataBase/PluginStorageManager.h"
#include "common/PluginId.h"
#include "storage/Directory.h"
#include "storage/File.h"
#include "system/ConfigInfo.h"
#include "system/LibconfigFile.h"

using datacenter::PluginInfo;

namespace {

// The built-in welcome page keeps its status outside its manifest.
const char* const kWelcomePluginId = "5017400000000000005";

// The settings of a manifest's root group, gathered in one pass: looking
// each key up through the library walks the whole group every time.
class Members {
public:
    explicit Members(const libconfig::Setting& root) {
        const int count = root.getLength();
        members_.reserve(count);
        for (int i = 0; i < count; ++i) {
            const libconfig::Setting& member = root[i];
            members_.emplace_back(member.getName(), &member);
        }
    }
    const libconfig::Setting* find(const char* key) const {
        for (const auto& member : members_) {
            if (member.first && strcmp(member.first, key) == 0) {
                return member.second;
            }
        }
        return nullptr;
    }

private:
    std::vector<std::pair<const char*, const libconfig::Setting*>> members_;
};

std::string text(const Members& root, const char* key) {
    const libconfig::Setting* setting = root.find(key);
    return setting && setting->getType() == libconfig::Setting::TypeString ? std::string(setting->c_str())
                                                                           : std::string();
}

// The strings of the array `key`; what was gathered so far when an element
// is not a string, nothing for a missing key or a setting of another kind.
std::vector<std::string> list(const Members& root, const char* key) {
    std::vector<std::string> values;
    const libconfig::Setting* setting = root.find(key);
    if (setting && setting->isArray()) {
        for (int i = 0; i < setting->getLength(); ++i) {
            const libconfig::Setting& element = (*setting)[i];
            if (element.getType() != libconfig::Setting::TypeString) {
                break;
            }
            values.emplace_back(element.c_str());
        }
    }
    return values;
}

// Sets `field` from the decimal text of `key` unless the text is empty.
template <typename Field>
void number(const Members& root, const char* key, Field& field) {
    const std::string value = text(root, key);
    if (!value.empty()) {
        field = static_cast<Field>(boost::lexical_cast<int32_t>(value));
    }
}

// The install time is a 32-bit field; a later (or earlier) time than it can
// hold is kept at its limit rather than making the plugin unlisted.
void installTime(const Members& root, int32_t& field) {
    const std::string value = text(root, PluginStorageManager::sManifestInstallTimeKey.c_str());
    if (value.empty()) {
        return;
    }
    const int64_t seconds = boost::lexical_cast<int64_t>(value);
    const int64_t low = std::numeric_limits<int32_t>::min();
    const int64_t high = std::numeric_limits<int32_t>::max();
    field = static_cast<int32_t>(seconds < low ? low : (seconds > high ? high : seconds));
}

// The plain text fields of a manifest and where each goes in the record.
struct TextField {
    const char* key;
    std::string PluginInfo::*member;
};

const TextField kTextFields[] = {
    {"name", &PluginInfo::name},
    {"small_icon", &PluginInfo::smallIcon},
    {"large_icon", &PluginInfo::largeIcon},
    {"developer", &PluginInfo::developer},
    {"dev_id", &PluginInfo::devId},
    {"version", &PluginInfo::version},
    {"introduction", &PluginInfo::introduction},
    {"control_url", &PluginInfo::controlUrl},
    {"supported_rom_version", &PluginInfo::supportedRomVersion},
    {"binary_name", &PluginInfo::binaryName},
    {"market_icon", &PluginInfo::marketIcon},
    {"installed_icon", &PluginInfo::installedIcon},
    {"detail_image", &PluginInfo::detailImage},
    {"authorize_id", &PluginInfo::authorizeId},
};

// Fills the record from a parsed manifest. Reading a text field cannot
// fail, so the numbers, which can, come after all of them.
void fillRecord(const Members& root, PluginInfo& info) {
    for (const TextField& field : kTextFields) {
        info.*field.member = text(root, field.key);
    }
    info.sdkToken = text(root, PluginStorageManager::sManifestSdkTokenKey.c_str());
    info.capabilityList = list(root, "capability_list");
    info.modelList = list(root, "model_list");
    if (info.id != kWelcomePluginId) {
        number(root, PluginStorageManager::sManifestStatusKey.c_str(), info.status);
    }
    number(root, "use_status", info.useStatus);
    number(root, "sdk_level", info.sdkLevel);
    installTime(root, info.installTime);
}

// The welcome page's status is not read from its manifest; the one this
// process last set stays across a re-read of the file.
void keepWelcomeStatus(const std::map<std::string, PluginInfo>& cached, PluginInfo& info) {
    const auto found = cached.find(info.id);
    if (info.id == kWelcomePluginId && found != cached.end()) {
        info.status = found->second.status;
    }
}

// The entries of the store directory in directory order: regular files and
// directories (links followed) whose names do not begin with ".". The type
// comes from the directory itself where the file system gives it, which
// spares a stat() per manifest.
std::vector<std::string> listStore(const std::string& directory) {
    std::vector<std::string> entries;
    DIR* stream = opendir(directory.c_str());
    if (!stream) {
        return entries;
    }
    while (const struct dirent* entry = readdir(stream)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const std::string path = directory + entry->d_name;
        bool wanted = entry->d_type == DT_REG || entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK) {
            struct stat status;
            wanted = stat(path.c_str(), &status) == 0 && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode));
        }
        if (wanted) {
            entries.push_back(path);
        }
    }
    closedir(stream);
    return entries;
}

}  // namespace

PluginStorageManager::ReadResult PluginStorageManager::readManifest(const std::string& path, PluginInfo& info,
                                                                    Stamp& stamp) {
    // The name is checked here and the kind of file once it is open (a
    // directory opens too), which spares a stat() per manifest.
    const std::string::size_type slash = path.rfind('/');
    const std::string::size_type dot = path.rfind('.');
    const bool named = dot != std::string::npos && (slash == std::string::npos || dot > slash) &&
                       path.compare(dot, std::string::npos, sManifestFileExten) == 0;
    FILE* stream = named ? fopen(path.c_str(), "re") : nullptr;
    if (named && !stream && errno != ENOENT && errno != ENOTDIR) {
        // Out of descriptors, an I/O error or no permission pass; the
        // manifest stays and is read again at the next lookup.
        LOG(ERROR) << "cannot read manifest " << path << ": " << strerror(errno);
        return ReadResult::Unreadable;
    }
    struct stat status;
    if (!stream || fstat(fileno(stream), &status) != 0 || S_ISDIR(status.st_mode)) {
        if (stream) {
            fclose(stream);
        }
        LOG(INFO) << path << " is not valid manifest";
        Stamp::sOf(path, stamp);
        return ReadResult::NotManifest;
    }
    stamp = Stamp::sFrom(status);
    libconfig::Config document;
    std::string error;
    datacenter::ConfigInfo::sGetInstance()->withFileLock([&] {
        try {
            document.read(stream);
        } catch (const std::exception& e) {
            error = datacenter::LibconfigFile::sDescribe(e);
        }
    });
    const bool readFailed = ferror(stream) != 0;
    fclose(stream);
    ++parseCount_;
    if (readFailed || !error.empty()) {
        LOG(ERROR) << "cannot read manifest " << path << ": " << (readFailed ? "read error" : error);
        return readFailed ? ReadResult::Unreadable : ReadResult::NotManifest;
    }
    const Members root(document.getRoot());
    info.id = text(root, "plugin_id");
    if (info.id.empty()) {
        LOG(INFO) << path << " manifest dose not have Plugin ID!!!!!!";
        // Only the version that was read goes: a manifest renamed into its
        // place meanwhile is another plugin's record.
        Stamp now;
        if (Stamp::sOf(path, now) && now == stamp) {
            datacenter::File::sDelete(path);
        }
        return ReadResult::NoId;
    }
    if (!datacenter::isSafePluginId(info.id)) {
        LOG(INFO) << path << " is not valid manifest";
        return ReadResult::BadId;
    }
    fillRecord(root, info);
    return ReadResult::Read;
}

bool PluginStorageManager::unchangedLocked(const std::string& path, const Entry& entry) const {
    Stamp now;
    if (entry.racy || !Stamp::sOf(path, now) || !(now == entry.stamp)) {
        return false;
    }
    if (entry.id.empty()) {
        return true;
    }
    // A record that lost to a duplicate id is not cached: read it again.
    const auto owner = ownerOf_.find(entry.id);
    return owner != ownerOf_.end() && owner->second == path;
}

void PluginStorageManager::rescanLocked(const timespec& scanStart) {
    std::unordered_map<std::string, Entry> entries;
    std::map<std::string, PluginInfo> infos;
    std::unordered_map<std::string, std::string> owners;
    std::exception_ptr conversionError;
    bool racy = false;
    for (const std::string& path : listStore(manifestRootPath)) {
        const auto known = entries_.find(path);
        if (known != entries_.end() && unchangedLocked(path, known->second)) {
            const Entry& entry = known->second;
            if (!entry.id.empty()) {
                infos[entry.id] = std::move(pluginInfos_[entry.id]);
                owners[entry.id] = path;
            }
            entries[path] = entry;
            continue;
        }
        PluginInfo info;
        Entry entry;
        ReadResult result = ReadResult::Unreadable;
        try {
            result = readManifest(path, info, entry.stamp);
        } catch (const boost::bad_lexical_cast& e) {
            LOG(ERROR) << path << " has a value that is not a number: " << e.what();
            if (!conversionError) {
                conversionError = std::current_exception();
            }
        }
        if (result == ReadResult::Unreadable || result == ReadResult::NoId) {
            // Not recorded: looked at again by the next lookup.
            racy = racy || result == ReadResult::Unreadable;
            continue;
        }
        if (result == ReadResult::Read) {
            keepWelcomeStatus(pluginInfos_, info);
            entry.id = info.id;
            owners[info.id] = path;
            infos[info.id] = std::move(info);
        }
        entry.racy = entry.stamp.isRacy(scanStart.tv_sec);
        racy = racy || entry.racy;
        entries[path] = entry;
    }
    entries_.swap(entries);
    pluginInfos_.swap(infos);
    ownerOf_.swap(owners);
    racyLeft_ = racyLeft_ || racy || conversionError;
    if (conversionError) {
        std::rethrow_exception(conversionError);
    }
}

void PluginStorageManager::refreshLocked() {
    manifestRootPath = sGetManifestRootPath();
    Stamp directory;
    if (!datacenter::Directory::sIsDirectory(manifestRootPath) || !Stamp::sOf(manifestRootPath, directory)) {
        pluginInfos_.clear();
        entries_.clear();
        ownerOf_.clear();
        scanned_ = false;
        return;
    }
    const std::string markFile = manifestRootPath + sUpdatedFile;
    const bool marked = access(markFile.c_str(), F_OK) == 0;
    if (scanned_ && !marked && !racyLeft_ && directory == directoryStamp_) {
        return;
    }
    if (marked) {
        datacenter::File::sDelete(markFile);
        Stamp::sOf(manifestRootPath, directory);
    }
    timespec scanStart;
    clock_gettime(CLOCK_REALTIME, &scanStart);
    directoryStamp_ = directory;
    lastModified = directory.modified.tv_sec;
    scanned_ = true;
    racyLeft_ = directory.isRacy(scanStart.tv_sec);
    rescanLocked(scanStart);
}

bool PluginStorageManager::addLocked(const std::string& path, PluginInfo& info) {
    Entry entry;
    if (readManifest(path, info, entry.stamp) != ReadResult::Read) {
        return false;
    }
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    entry.id = info.id;
    entry.racy = entry.stamp.isRacy(now.tv_sec);
    racyLeft_ = racyLeft_ || entry.racy;
    entries_[path] = entry;
    keepWelcomeStatus(pluginInfos_, info);
    pluginInfos_[info.id] = info;
    ownerOf_[info.id] = path;
    return true;
}
