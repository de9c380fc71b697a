// Reading manifests and keeping the cache in step with the store directory:
// one parse per manifest version, and after a change only the entries whose
// own stamp moved are parsed again.
#include <dirent.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <libconfig.h++>
#include <limits>
#include <utility>
#include <vector>

#include "DataBase/PluginStorageManager.h"
#include "common/DecimalNumber.h"
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
// False, with `field` untouched, for text that is not a whole number of
// the field's range.
template <typename Field>
bool number(const Members& root, const char* key, Field& field) {
    const std::string value = text(root, key);
    int32_t parsed = 0;
    if (value.empty()) {
        return true;
    }
    if (!datacenter::DecimalNumber::sParse(value, parsed)) {
        return false;
    }
    field = static_cast<Field>(parsed);
    return true;
}

// The install time is a 32-bit field; a later (or earlier) time than it can
// hold is kept at its limit rather than making the plugin unlisted.
bool installTime(const Members& root, int32_t& field) {
    const std::string value = text(root, PluginStorageManager::sManifestInstallTimeKey.c_str());
    int64_t seconds = 0;
    if (value.empty()) {
        return true;
    }
    if (!datacenter::DecimalNumber::sParse(value, seconds)) {
        return false;
    }
    const int64_t low = std::numeric_limits<int32_t>::min();
    const int64_t high = std::numeric_limits<int32_t>::max();
    field = static_cast<int32_t>(seconds < low ? low : (seconds > high ? high : seconds));
    return true;
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

// Fills the record from a parsed manifest. Returns the first numeric key
// whose text is not a number of its field's range, or nullptr.
const char* fillRecord(const Members& root, PluginInfo& info) {
    for (const TextField& field : kTextFields) {
        info.*field.member = text(root, field.key);
    }
    info.sdkToken = text(root, PluginStorageManager::sManifestSdkTokenKey.c_str());
    info.capabilityList = list(root, "capability_list");
    info.modelList = list(root, "model_list");
    if (info.id != kWelcomePluginId && !number(root, PluginStorageManager::sManifestStatusKey.c_str(), info.status)) {
        return PluginStorageManager::sManifestStatusKey.c_str();
    }
    if (!number(root, "use_status", info.useStatus)) {
        return "use_status";
    }
    if (!number(root, "sdk_level", info.sdkLevel)) {
        return "sdk_level";
    }
    return installTime(root, info.installTime) ? nullptr : PluginStorageManager::sManifestInstallTimeKey.c_str();
}

// The welcome page's status is not read from its manifest; the one this
// process last set stays across a re-read of the file.
void keepWelcomeStatus(const std::map<std::string, PluginInfo>& cached, PluginInfo& info) {
    const auto found = cached.find(info.id);
    if (info.id == kWelcomePluginId && found != cached.end()) {
        info.status = found->second.status;
    }
}

// `path` without trailing slashes: a trailing slash makes the system follow
// a link in the last component even with O_NOFOLLOW or lstat().
std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

// The entries of the store directory in directory order: regular files and
// directories whose names do not begin with ".". A link is never followed:
// it is left out with a log line. The type comes from the directory itself
// where the file system gives it, which spares a stat() per manifest.
std::vector<std::string> listStore(const std::string& directory) {
    std::vector<std::string> entries;
    const int fd =
        ::open(withoutTrailingSlash(directory).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    DIR* stream = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!stream) {
        if (fd >= 0) {
            ::close(fd);
        }
        return entries;
    }
    while (const struct dirent* entry = readdir(stream)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        unsigned char type = entry->d_type;
        struct stat status;
        if (type == DT_UNKNOWN && fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
            type = S_ISLNK(status.st_mode) ? DT_LNK : (S_ISREG(status.st_mode) ? DT_REG : DT_DIR);
        }
        if (type == DT_LNK) {
            LOG(ERROR) << "the manifest store refuses " << directory << entry->d_name << ": a link is never followed";
        } else if (type == DT_REG || type == DT_DIR) {
            entries.push_back(directory + entry->d_name);
        }
    }
    closedir(stream);
    return entries;
}

// Closes a descriptor when it goes out of scope.
struct ScopedFd {
    int fd;
    explicit ScopedFd(int value) : fd(value) {}
    ~ScopedFd() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
};

// A manifest is never larger than this; anything bigger is not read.
const size_t kMaxManifestBytes = 1024 * 1024;

// Reads the whole of `fd`; false on a read error or beyond kMaxManifestBytes.
bool readText(int fd, std::string& text) {
    char buffer[8192];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got == 0;
        }
        text.append(buffer, static_cast<size_t>(got));
        if (text.size() > kMaxManifestBytes) {
            errno = EFBIG;
            return false;
        }
    }
}

}  // namespace

PluginStorageManager::ReadResult PluginStorageManager::readManifest(const std::string& path, PluginInfo& info,
                                                                    Stamp& stamp) {
    // The name is checked here and the kind of file once it is open (a
    // directory opens too), which spares a stat() per manifest. The store
    // folder and the manifest are opened without following a link and
    // without blocking on a FIFO; "@include" is refused like in packages.
    const std::string::size_type slash = path.rfind('/');
    const std::string::size_type dot = path.rfind('.');
    const bool named = dot != std::string::npos && slash != std::string::npos && dot > slash &&
                       path.compare(dot, std::string::npos, sManifestFileExten) == 0;
    const std::string leaf = named ? path.substr(slash + 1) : std::string();
    ScopedFd folder(
        named ? ::open(path.substr(0, slash + 1).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)
              : -1);
    ScopedFd file(folder.fd >= 0 ? ::openat(folder.fd, leaf.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)
                                 : -1);
    if (named && file.fd < 0 && errno == ELOOP) {
        LOG(ERROR) << "the manifest store refuses " << path << ": a link is never followed";
        return ReadResult::NotManifest;
    }
    if (named && file.fd < 0 && errno != ENOENT && errno != ENOTDIR) {
        // Out of descriptors, an I/O error or no permission pass; the
        // manifest stays and is read again at the next lookup.
        LOG(ERROR) << "cannot read manifest " << path << ": " << strerror(errno);
        return ReadResult::Unreadable;
    }
    struct stat status;
    if (file.fd < 0 || fstat(file.fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        LOG(INFO) << path << " is not valid manifest";
        Stamp::sOf(path, stamp);
        return ReadResult::NotManifest;
    }
    stamp = Stamp::sFrom(status);
    std::string content;
    const bool readFailed = !readText(file.fd, content);
    const int readError = errno;
    libconfig::Config document;
    std::string error;
    if (!readFailed) {
        datacenter::ConfigInfo::sGetInstance()->withFileLock([&] {
            try {
                datacenter::LibconfigFile::sReadPlainString(document, content, path.c_str());
            } catch (const std::exception& e) {
                error = datacenter::LibconfigFile::sDescribe(e);
            }
        });
    }
    ++parseCount_;
    if (readFailed || !error.empty()) {
        LOG(ERROR) << "cannot read manifest " << path << ": "
                   << (readFailed ? std::string("read error: ") + strerror(readError) : error);
        return readFailed && readError != EFBIG ? ReadResult::Unreadable : ReadResult::NotManifest;
    }
    const Members root(document.getRoot());
    info.id = text(root, "plugin_id");
    if (info.id.empty()) {
        LOG(INFO) << path << " manifest dose not have Plugin ID!!!!!!";
        // Only the version that was read goes: a manifest renamed into its
        // place meanwhile is another plugin's record.
        struct stat current;
        if (fstatat(folder.fd, leaf.c_str(), &current, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(current.st_mode) &&
            Stamp::sFrom(current) == stamp) {
            unlinkat(folder.fd, leaf.c_str(), 0);
        }
        return ReadResult::NoId;
    }
    if (!datacenter::isSafePluginId(info.id)) {
        LOG(INFO) << path << " is not valid manifest";
        return ReadResult::BadId;
    }
    if (const char* key = fillRecord(root, info)) {
        // Installation refuses such a number; this record was written by an
        // older version or by hand. It is not listed, never thrown about.
        LOG(ERROR) << path << " has a value that is not a number: " << key;
        info = PluginInfo();
        return ReadResult::NotManifest;
    }
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
        const ReadResult result = readManifest(path, info, entry.stamp);
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
    racyLeft_ = racyLeft_ || racy;
}

void PluginStorageManager::refreshLocked() {
    manifestRootPath = sGetManifestRootPath();
    Stamp directory;
    struct stat folder;
    const bool linked = lstat(withoutTrailingSlash(manifestRootPath).c_str(), &folder) == 0 && S_ISLNK(folder.st_mode);
    if (linked) {
        LOG(ERROR) << "the manifest store " << manifestRootPath << " is a link; it is not read";
    }
    if (linked || !datacenter::Directory::sIsDirectory(manifestRootPath) || !Stamp::sOf(manifestRootPath, directory)) {
        pluginInfos_.clear();
        entries_.clear();
        ownerOf_.clear();
        scanned_ = false;
        return;
    }
    // The mark counts only as a plain file; a link in its place is neither
    // followed nor removed.
    const std::string markFile = manifestRootPath + sUpdatedFile;
    struct stat mark;
    const bool present = lstat(markFile.c_str(), &mark) == 0;
    const bool marked = present && !S_ISLNK(mark.st_mode);
    if (present && !marked && !(scanned_ && directory == directoryStamp_)) {
        LOG(ERROR) << "the manifest store refuses " << markFile << ": a link is never followed";
    }
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
