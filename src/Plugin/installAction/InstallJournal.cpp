#include "Plugin/installAction/InstallJournal.h"

#include <dirent.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "Plugin/installAction/InstallAction.h"
#include "Plugin/installAction/UpgradeBackup.h"
#include "common/PluginId.h"
#include "common/Singleton.h"
#include "storage/File.h"
#include "storage/PrivateState.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/ProcessOwnership.h"
#include "system/RootPrefix.h"

namespace {

const char* const kLockName = "install.lock";
const char* const kJournalName = "install.journal";

// Closes a descriptor when it goes out of scope.
struct Fd {
    int fd;
    explicit Fd(int value) : fd(value) {}
    ~Fd() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

std::string serialise(const InstallJournal::Entry& entry) {
    std::string text = "id " + entry.id + "\n";
    text += std::string("upgrade ") + (entry.upgrade ? "1" : "0") + "\n";
    text += std::string("fresh_tree ") + (entry.freshTree ? "1" : "0") + "\n";
    text += std::string("backup ") + (entry.backup ? "1" : "0") + "\n";
    text += std::string("was_enabled ") + (entry.wasEnabled ? "1" : "0") + "\n";
    text += std::string("committed ") + (entry.committed ? "1" : "0") + "\n";
    return text;
}

void fsyncDirectory(const std::string& dir) {
    Fd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.fd < 0 || fsync(fd.fd) != 0) {
        LOG(WARNING) << "cannot flush directory " << dir << ": " << strerror(errno);
    }
}

// Removes everything below the open directory `dir` without following links
// and without entering another file system (a chroot's bind mounts of user
// data may still be in place). Returns false when something stayed.
bool emptyDirectoryAt(int dir, dev_t device) {
    const int walk = ::dup(dir);
    if (walk < 0) {
        return false;
    }
    DIR* stream = fdopendir(walk);
    if (!stream) {
        ::close(walk);
        return false;
    }
    bool ok = true;
    while (const dirent* item = readdir(stream)) {
        const std::string name = item->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        struct stat st;
        if (fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            ok = false;
            continue;
        }
        if (!S_ISDIR(st.st_mode)) {
            ok = unlinkat(dir, name.c_str(), 0) == 0 && ok;
            continue;
        }
        Fd child(openat(dir, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat opened;
        if (child.fd < 0 || fstat(child.fd, &opened) != 0 || opened.st_dev != device || st.st_dev != device) {
            LOG(WARNING) << "install recovery leaves " << name << ": not a plain folder of the plugin tree";
            ok = false;
            continue;
        }
        ok = emptyDirectoryAt(child.fd, device) && ok;
        ok = unlinkat(dir, name.c_str(), AT_REMOVEDIR) == 0 && ok;
    }
    closedir(stream);
    return ok;
}

// The part of `path` below the plugin root, or "" when it is not strictly
// below it or takes a detour through "." or "..".
std::string relativeToRoot(const std::string& path) {
    const std::string root = PluginManager::sGetPluginRootPath();
    if (root.empty() || path.size() <= root.size() || path.compare(0, root.size(), root) != 0) {
        return std::string();
    }
    std::string rel = path.substr(root.size());
    while (!rel.empty() && rel.front() == '/') {
        rel.erase(0, 1);
    }
    while (!rel.empty() && rel.back() == '/') {
        rel.pop_back();
    }
    std::istringstream parts(rel);
    for (std::string part; std::getline(parts, part, '/');) {
        if (part == "." || part == "..") {
            return std::string();
        }
    }
    return rel;
}

// Removes the file or tree at `path`, which must lie below the plugin root.
// Every component is opened relative to its parent without following links,
// so a link planted on the way cannot redirect the removal.
void removeTree(const std::string& path) {
    const std::string rel = relativeToRoot(path);
    if (rel.empty()) {
        LOG(WARNING) << "install recovery ignores " << path << ": not below the plugin root";
        return;
    }
    Fd parent(::open(PluginManager::sGetPluginRootPath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat rootStat;
    if (parent.fd < 0 || fstat(parent.fd, &rootStat) != 0) {
        return;
    }
    std::string name = rel;
    for (std::string::size_type slash; (slash = name.find('/')) != std::string::npos;) {
        const std::string part = name.substr(0, slash);
        name.erase(0, slash + 1);
        if (part.empty()) {
            continue;
        }
        const int next = openat(parent.fd, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0) {
            return;  // gone already, or a link: nothing of ours to remove through it
        }
        ::close(parent.fd);
        parent.fd = next;
    }
    struct stat st;
    if (fstatat(parent.fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    if (!S_ISDIR(st.st_mode)) {
        unlinkat(parent.fd, name.c_str(), 0);
        return;
    }
    Fd tree(openat(parent.fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (tree.fd >= 0 && st.st_dev == rootStat.st_dev && emptyDirectoryAt(tree.fd, rootStat.st_dev)) {
        unlinkat(parent.fd, name.c_str(), AT_REMOVEDIR);
    } else {
        LOG(WARNING) << "install recovery could not remove all of " << path;
    }
}

// Half-written replacements ("<name>.tmp.XXXXXX", and "<name>.tmp-XXXXXX"
// from the signature step's certificate) that a killed writer left in the
// plugin's folders.
void removeTemporaryFiles(const std::string& id) {
    for (const std::string& dir :
         {PluginManager::sGetPluginDataPath(id), PluginManager::sGetPluginDataPath(id) + "etc/"}) {
        Fd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        DIR* stream = fd.fd >= 0 ? fdopendir(::dup(fd.fd)) : nullptr;
        if (!stream) {
            continue;
        }
        while (const dirent* item = readdir(stream)) {
            const std::string name = item->d_name;
            std::string::size_type mark = name.rfind(".tmp.");
            if (mark == std::string::npos) {
                mark = name.rfind(".tmp-");
            }
            struct stat st;
            if (mark != std::string::npos && name.size() == mark + 11 &&
                fstatat(fd.fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(st.st_mode)) {
                unlinkat(fd.fd, name.c_str(), 0);
            }
        }
        closedir(stream);
    }
}

// Whether the store lists `id` as an installed plugin (enabled or disabled).
bool listedAsInstalled(const std::string& id) {
    const datacenter::PluginInfo info = Singleton<PluginStorageManager>::instance()->getPluginInfoById(id);
    return !info.id.empty() && (info.status == datacenter::ENABLED || info.status == datacenter::DISABLED);
}

// The payloads an installation of `id` stages: the installer's own folder and
// the two package files the contract names in the plugin's folder.
void removeStagedFiles(const std::string& id) {
    UpgradeBackup::sClearStaging();
    InstallJournal::sRemoveBelowRoot(PluginManager::sGetPluginDataPath(id) + InstallAction::sVerifiedQpkLocalName);
    InstallJournal::sRemoveBelowRoot(PluginManager::sGetQpkLocalPath(id));
}

// An upgrade that kept the old version aside: past its commit point only the
// backup goes and the new version's file record is written; before it the old
// version comes back, to be started again when it ran before.
void recoverUpgrade(const InstallJournal::Entry& entry, std::string* restart) {
    const std::string& id = entry.id;
    UpgradeBackup backup(id);
    if (entry.committed) {
        backup.discard();
        removeTemporaryFiles(id);
        InstallAction::sWriteInitFilesRecord(id);
        removeStagedFiles(id);
        LOG(WARNING) << "install recovery: finished the upgrade of plugin " << id;
        return;
    }
    CommonUtils::sCallSystem(datacenter::planformGetPluginControllorPath() + " -k " + id);
    datacenter::ProcessOwnership::sStopAll(id, PluginManager::sGetPluginDataPath(id));
    const bool restored = backup.restore(entry.wasEnabled);
    removeTemporaryFiles(id);
    removeStagedFiles(id);
    if (entry.wasEnabled && restart) {
        *restart = id;
    }
    LOG(ERROR) << "install recovery: the upgrade of plugin " << id << " was interrupted; the old version "
               << (restored ? "is back" : "could not be put back completely");
}

void recoverPlugin(const InstallJournal::Entry& entry, std::string* restart) {
    const std::string& id = entry.id;
    const std::string dataDir = PluginManager::sGetPluginDataPath(id);
    if (entry.upgrade && entry.backup) {
        recoverUpgrade(entry, restart);
        return;
    }
    if (!entry.upgrade && listedAsInstalled(id)) {
        // A fresh installation does not end with a listed plugin unless it
        // completed: whatever the record says, that plugin's files stay.
        UpgradeBackup::sClearStaging();
        LOG(WARNING) << "install recovery: plugin " << id
                     << " is listed as installed; its files and record are left as they are";
        return;
    }
    removeStagedFiles(id);
    if (entry.upgrade) {
        // The upgrade died before it recorded its backup, and so before it
        // stopped or changed anything of the installed version.
        removeTemporaryFiles(id);
        LOG(WARNING) << "install recovery: the upgrade of plugin " << id
                     << " stopped before it changed anything; the installed version stays as it is";
        return;
    }
    // Whatever the dead installer may have started runs no more.
    CommonUtils::sCallSystem(datacenter::planformGetPluginControllorPath() + " -k " + id);
    datacenter::ProcessOwnership::sStopAll(id, PluginManager::sGetPluginDataPath(id));
    PluginStorageManager* store = Singleton<PluginStorageManager>::instance();
    std::string output;
    CommonUtils::sCallSystem(PluginManager::sUnmountChrootPath + " " + dataDir, output);
    store->deleteInStorage(id);
    if (entry.freshTree) {
        InstallJournal::sRemoveBelowRoot(dataDir);
        LOG(WARNING) << "install recovery: removed the interrupted installation of plugin " << id;
    } else {
        // The folder was there before the installation: keep it, but not
        // the manifest that would make it look installed.
        removeTemporaryFiles(id);
        InstallJournal::sRemoveBelowRoot(PluginManager::sGetPluginManifestPath(id));
        LOG(WARNING) << "install recovery: plugin " << id << " was not installed completely";
    }
}

}  // namespace

void InstallJournal::sRemoveBelowRoot(const std::string& path) {
    removeTree(path);
}

InstallJournal::~InstallJournal() {
    unlock();
}

std::string InstallJournal::sPrivateDir() {
    return datacenter::PrivateState::sDir();
}

std::string InstallJournal::sLockPath() {
    return sPrivateDir() + kLockName;
}

std::string InstallJournal::sJournalPath() {
    return sPrivateDir() + kJournalName;
}

bool InstallJournal::sEnsurePrivateDir() {
    return datacenter::PrivateState::sEnsure();
}

bool InstallJournal::tryLock() {
    if (fd_ >= 0) {
        return true;
    }
    if (!sEnsurePrivateDir()) {
        return false;
    }
    // Close-on-exec: a plugin started during the installation must not
    // inherit, and so keep, the lock.
    const int fd = ::open(sLockPath().c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600);
    if (fd < 0) {
        LOG(ERROR) << "cannot open the install lock " << sLockPath() << ": " << strerror(errno);
        return false;
    }
    int rc;
    do {
        rc = flock(fd, LOCK_EX | LOCK_NB);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        ::close(fd);
        return false;
    }
    fd_ = fd;
    return true;
}

void InstallJournal::unlock() {
    if (fd_ >= 0) {
        ::close(fd_);  // closing the only descriptor releases the flock
        fd_ = -1;
    }
}

bool InstallJournal::record(const Entry& entry) {
    if (!sEnsurePrivateDir() || !datacenter::File::sWriteAtomically(sJournalPath(), serialise(entry), 0600)) {
        LOG(ERROR) << "cannot record the installation in " << sJournalPath();
        return false;
    }
    fsyncDirectory(sPrivateDir());
    return true;
}

void InstallJournal::clear() {
    if (::unlink(sJournalPath().c_str()) == 0) {
        fsyncDirectory(sPrivateDir());
    }
}

bool InstallJournal::sRead(const std::string& path, Entry& entry) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (fd.fd < 0 || fstat(fd.fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > 64 * 1024) {
        return false;
    }
    std::string text(static_cast<size_t>(st.st_size), '\0');
    if (!text.empty() && ::read(fd.fd, &text[0], text.size()) != static_cast<ssize_t>(text.size())) {
        return false;
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::string::size_type blank = line.find(' ');
        const std::string key = line.substr(0, blank);
        const std::string value = blank == std::string::npos ? std::string() : line.substr(blank + 1);
        if (key == "id") {
            entry.id = value;
        } else if (key == "upgrade") {
            entry.upgrade = value == "1";
        } else if (key == "fresh_tree") {
            entry.freshTree = value == "1";
        } else if (key == "backup") {
            entry.backup = value == "1";
        } else if (key == "was_enabled") {
            entry.wasEnabled = value == "1";
        } else if (key == "committed") {
            entry.committed = value == "1";
        }
    }
    return true;
}

namespace {

// Rollbacks that left files out are tried again: once every file is back
// the backup goes, and the old version starts when it ran before.
void retryPendingRestores(std::string* restart) {
    const std::vector<std::string> pending = UpgradeBackup::sPendingIds();
    for (const std::string& id : pending) {
        bool wasEnabled = false;
        UpgradeBackup::sPending(id, &wasEnabled);
        datacenter::ProcessOwnership::sStopAll(id, PluginManager::sGetPluginDataPath(id));
        UpgradeBackup backup(id);
        if (!backup.restore(wasEnabled)) {
            LOG(ERROR) << "install recovery: the old version of plugin " << id
                       << " still cannot be put back completely";
            continue;
        }
        LOG(WARNING) << "install recovery: the old version of plugin " << id << " is back";
        if (wasEnabled && restart && restart->empty()) {
            *restart = id;
        }
    }
    if (!pending.empty()) {
        UpgradeBackup::sClearStaging();  // what is still pending stays
    }
}

}  // namespace

bool InstallJournal::sRecover(std::string* restart) {
    InstallJournal lock;
    Entry entry;
    if (!lock.tryLock()) {
        return false;  // an installer is at work
    }
    if (!sRead(sJournalPath(), entry)) {
        retryPendingRestores(restart);
        return false;  // none left anything behind
    }
    LOG(WARNING) << "install recovery: an installer stopped while installing '" << entry.id << "'";
    // An id that is not a plain token was never used to write anything; with
    // no id yet, only the installer's own folder may hold something.
    if (datacenter::isSafePluginId(entry.id)) {
        recoverPlugin(entry, restart);
    } else {
        if (!entry.id.empty()) {
            LOG(ERROR) << "install recovery ignores the unsafe plugin id '" << entry.id << "'";
        }
        UpgradeBackup::sClearStaging();
    }
    lock.clear();
    retryPendingRestores(restart);
    return true;
}
