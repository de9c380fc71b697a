#include "Plugin/installAction/UpgradeBackup.h"

#include <dirent.h>
#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Plugin/PluginManager.h"
#include "Plugin/TimeMachineMigration.h"
#include "Plugin/installAction/InstallAction.h"
#include "Plugin/installAction/InstallJournal.h"
#include "Plugin/installAction/PackageFiles.h"
#include "common/PluginId.h"
#include "storage/Durability.h"
#include "storage/File.h"
#include "storage/TreeRemoval.h"

namespace {

const char* const kAddedName = "/added";
const char* const kFilesName = "/files";
const char* const kStoreCopyName = "/store.manifest";
const char* const kRecordCopyName = "/init_files.record";
// Marks a backup whose restore left something out; holds "was_enabled 0|1".
const char* const kPendingName = "/pending";
const char* const kPreviousSuffix = ".previous";
// What the time-machine migration saw before it moved anything.
const char* const kTimeMachineName = "timemachine";

std::string parentOf(const std::string& relative) {
    const std::string::size_type slash = relative.rfind('/');
    return slash == std::string::npos ? std::string() : relative.substr(0, slash);
}

std::string leafOf(const std::string& relative) {
    const std::string::size_type slash = relative.rfind('/');
    return slash == std::string::npos ? relative : relative.substr(slash + 1);
}

std::string joined(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

// A plugin can grow its records to any size (a sparse file of gigabytes
// costs it nothing): a copy of one is refused past the record limit.
const size_t kRecordLimit = InstallAction::sInitFilesRecordLimit;
// The list of added names is the installer's own, one line per file of a
// package; its bound only keeps a damaged list from exhausting memory.
const size_t kAddedListLimit = 64u << 20;

// Reads the rest of `fd`; false on a read error or past `limit` bytes.
bool readAll(int fd, std::string& text, size_t limit) {
    char buffer[16 * 1024];
    for (;;) {
        if (text.size() > limit) {
            errno = EFBIG;
            return false;
        }
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            return true;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
}

bool writeAll(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool missing(int dirFd, const std::string& name) {
    struct stat st;
    return ::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

std::string storeRecordName(const std::string& id) {
    return "app_infos/" + id + ".manifest";
}

}  // namespace

UpgradeBackup::UpgradeBackup(const std::string& id)
    : id_(id), folder_(sFolderName(id)), root_(PluginManager::sGetPluginRootPath()) {}

std::string UpgradeBackup::sFolderName(const std::string& id) {
    return InstallAction::sLocalInstallTmpDir + id + ".previous";
}

bool UpgradeBackup::begin() {
    discard();
    if (PackageFiles::sStagingDir().empty()) {
        return false;
    }
    const datacenter::UniqueFd folder(root_.openDirectory(folder_, true, 0700));
    list_.reset(folder.valid() ? root_.openFile(folder_ + kAddedName, O_WRONLY | O_CREAT | O_APPEND, 0600) : -1);
    const bool ok = list_.valid() && copyRecord(storeRecordName(id_), folder_ + kStoreCopyName) &&
                    copyRecord(id_ + "/" + InstallAction::sInitFilesRecordName, folder_ + kRecordCopyName);
    if (!ok) {
        LOG(ERROR) << "upgrade of " << id_ << ": cannot prepare the backup folder " << folder_ << ": "
                   << root_.lastError();
        list_.reset();
    }
    return ok;
}

bool UpgradeBackup::copyRecord(const std::string& from, const std::string& to) {
    const datacenter::UniqueFd in(root_.openFile(from, O_RDONLY, 0));
    if (!in.valid()) {
        // Nothing to keep: missing, or behind a link the later steps refuse.
        LOG(INFO) << "upgrade of " << id_ << ": no " << from << " to keep: " << root_.lastError();
        return true;
    }
    // The copy gets its name only once it is whole: a copy cut short by a
    // crash would otherwise be put back over the intact record.
    std::string text;
    struct stat st;
    const std::string partial = to + ".part";
    bool ok = readAll(in.get(), text, kRecordLimit) && ::fstat(in.get(), &st) == 0;
    if (!ok) {
        LOG(ERROR) << "upgrade of " << id_ << ": cannot keep " << from << ": " << strerror(errno);
    }
    {
        const datacenter::UniqueFd out(ok ? root_.openFile(partial, O_WRONLY | O_CREAT | O_TRUNC, 0600) : -1);
        ok = out.valid() && writeAll(out.get(), text) && ::fchmod(out.get(), st.st_mode & 07777) == 0 &&
             ::fsync(out.get()) == 0;
    }
    return ok && root_.rename(partial, to);
}

bool UpgradeBackup::writeBack(const std::string& from, const std::string& to) {
    const datacenter::UniqueFd in(root_.openFile(from, O_RDONLY, 0));
    if (!in.valid()) {
        return errno == ENOENT;
    }
    std::string text;
    struct stat st;
    const std::string temporary = to + ".restore";
    bool ok = readAll(in.get(), text, kRecordLimit) && ::fstat(in.get(), &st) == 0;
    {
        const datacenter::UniqueFd out(ok ? root_.openFile(temporary, O_WRONLY | O_CREAT | O_TRUNC, 0600) : -1);
        ok = out.valid() && writeAll(out.get(), text) && ::fchmod(out.get(), st.st_mode & 07777) == 0 &&
             ::fsync(out.get()) == 0;
    }
    ok = ok && root_.rename(temporary, to);
    if (!ok) {
        LOG(ERROR) << "upgrade of " << id_ << ": cannot put back " << to << ": " << root_.lastError();
        root_.remove(temporary);
    }
    return ok;
}

bool UpgradeBackup::note(const std::string& relative) {
    // On disk before the name is made: after a power cut a file the list
    // does not name would stay in the old version the rollback puts back.
    return writeAll(list_.get(), relative + "\n") && ::fdatasync(list_.get()) == 0;
}

bool UpgradeBackup::beforeFile(int directoryFd, const std::string& relative) {
    const std::string leaf = leafOf(relative);
    struct stat st;
    if (::fstatat(directoryFd, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT && note(relative);
    }
    if (!S_ISREG(st.st_mode)) {
        return true;  // a folder, link or special file: writing a file there is refused on its own
    }
    const datacenter::UniqueFd mirror(
        root_.openDirectory(joined(folder_ + kFilesName, parentOf(relative)), true, 0700));
    if (!mirror.valid()) {
        return false;
    }
    // Already moved once: what lies there now is this upgrade's own.
    if (!missing(mirror.get(), leaf)) {
        return true;
    }
    if (::renameat(directoryFd, leaf.c_str(), mirror.get(), leaf.c_str()) != 0) {
        LOG(ERROR) << "upgrade of " << id_ << ": cannot move " << relative << " aside: " << std::strerror(errno);
        return false;
    }
    return true;
}

bool UpgradeBackup::beforeFile(const std::string& relative) {
    const datacenter::UniqueFd parent(root_.openDirectory(joined(id_, parentOf(relative)), false, 0));
    if (!parent.valid()) {
        return errno == ENOENT && note(relative);  // its folder is new too
    }
    return beforeFile(parent.get(), relative);
}

bool UpgradeBackup::beforeDirectory(const std::string& relative) {
    std::string prefix;
    for (std::string::size_type start = 0; start < relative.size();) {
        const std::string::size_type slash = std::min(relative.find('/', start), relative.size());
        prefix = relative.substr(0, slash);
        start = slash + 1;
        if (!seen_.insert(prefix).second) {
            continue;
        }
        const datacenter::UniqueFd parent(root_.openDirectory(joined(id_, parentOf(prefix)), false, 0));
        if ((!parent.valid() || missing(parent.get(), leafOf(prefix))) && !note(prefix + "/")) {
            return false;
        }
    }
    return true;
}

void UpgradeBackup::sync() {
    if (list_.valid()) {
        ::fdatasync(list_.get());
    }
}

bool UpgradeBackup::restoreFiles(int mirrorFd, const std::string& relative) {
    DIR* stream = ::fdopendir(::fcntl(mirrorFd, F_DUPFD_CLOEXEC, 0));
    if (!stream) {
        return false;
    }
    bool ok = true;
    while (const dirent* item = ::readdir(stream)) {
        const std::string name = item->d_name;
        struct stat st;
        if (name == "." || name == ".." || ::fstatat(mirrorFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        if (S_ISDIR(st.st_mode)) {
            const datacenter::UniqueFd child(
                ::openat(mirrorFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            ok = child.valid() && restoreFiles(child.get(), joined(relative, name)) && ok;
            continue;
        }
        const datacenter::UniqueFd target(root_.openDirectory(joined(id_, relative), true, 0777));
        if (!target.valid() || ::renameat(mirrorFd, name.c_str(), target.get(), name.c_str()) != 0) {
            LOG(ERROR) << "upgrade of " << id_ << ": cannot put back " << joined(relative, name);
            ok = false;
        }
    }
    ::closedir(stream);
    return ok;
}

bool UpgradeBackup::noteTimeMachine(const std::string& before) {
    const datacenter::UniqueFd folder(root_.openDirectory(folder_, false, 0));
    if (!folder.valid() || !datacenter::File::sWriteAtomicallyAt(
                               folder.get(), kTimeMachineName,
                               [&before](FILE* file) { return std::fputs(before.c_str(), file) >= 0; }, 0600)) {
        LOG(ERROR) << "upgrade of " << id_
                   << ": cannot keep what the time-machine migration moves: " << root_.lastError();
        return false;
    }
    return true;
}

bool UpgradeBackup::undoTimeMachine() {
    const datacenter::UniqueFd note(root_.openFile(folder_ + "/" + kTimeMachineName, O_RDONLY, 0));
    if (!note.valid()) {
        return true;  // nothing was migrated
    }
    std::string text;
    TimeMachineMove move;
    if (!readAll(note.get(), text, 64) || !TimeMachineMove::sFromText(text, move)) {
        LOG(ERROR) << "upgrade of " << id_ << ": the note of the time-machine migration is damaged";
        return false;
    }
    // Moved back already (a restore that is tried again) shows as not moved.
    move.after();
    return !move.moved() || move.undo();
}

bool UpgradeBackup::restore(bool wasEnabled) {
    list_.reset();
    const datacenter::UniqueFd folder(root_.openDirectory(folder_, false, 0));
    if (!folder.valid()) {
        return true;  // the upgrade had not moved anything yet
    }
    std::string text;
    {
        const datacenter::UniqueFd list(root_.openFile(folder_ + kAddedName, O_RDONLY, 0));
        if (list.valid()) {
            readAll(list.get(), text, kAddedListLimit);
        }
    }
    std::vector<std::string> added;
    for (std::string::size_type start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        added.push_back(text.substr(start, end - start));
    }
    bool ok = true;
    for (auto it = added.rbegin(); it != added.rend(); ++it) {
        if (!it->empty() && it->back() != '/') {
            ok = root_.remove(joined(id_, *it)) && ok;
        }
    }
    const datacenter::UniqueFd files(root_.openDirectory(folder_ + kFilesName, false, 0));
    ok = (!files.valid() || restoreFiles(files.get(), std::string())) && ok;
    // The old version finds its time-machine data where it left it.
    ok = undoTimeMachine() && ok;
    // Folders the upgrade made go when empty; what the plugin keeps in them stays.
    for (auto it = added.rbegin(); it != added.rend(); ++it) {
        if (!it->empty() && it->back() == '/') {
            root_.remove(joined(id_, it->substr(0, it->size() - 1)));
        }
    }
    ok = writeBack(folder_ + kStoreCopyName, storeRecordName(id_)) && ok;
    ok = writeBack(folder_ + kRecordCopyName, id_ + "/" + InstallAction::sInitFilesRecordName) && ok;
    // What was put back is on disk before the copies of it go.
    ok = ok && datacenter::Durability::sCommitPath(root_.root().c_str());
    if (ok) {
        discard();
        return true;
    }
    LOG(ERROR) << "upgrade of " << id_ << ": the old version could not be put back completely; the backup stays in "
               << folder_;
    bool enabled = wasEnabled;
    if (!sPending(id_, &enabled)) {
        const datacenter::UniqueFd mark(root_.openFile(folder_ + kPendingName, O_WRONLY | O_CREAT | O_TRUNC, 0600));
        const std::string text = std::string("was_enabled ") + (wasEnabled ? "1" : "0") + "\n";
        if (!mark.valid() || !writeAll(mark.get(), text) || ::fsync(mark.get()) != 0) {
            LOG(ERROR) << "upgrade of " << id_ << ": cannot mark the backup pending: " << root_.lastError();
        }
    }
    return false;
}

bool UpgradeBackup::sPending(const std::string& id, bool* wasEnabled) {
    datacenter::PluginTree root(PluginManager::sGetPluginRootPath());
    const datacenter::UniqueFd mark(root.openFile(sFolderName(id) + kPendingName, O_RDONLY, 0));
    if (!mark.valid()) {
        return false;
    }
    std::string text;
    readAll(mark.get(), text, 64);
    if (wasEnabled) {
        *wasEnabled = text.find("was_enabled 1") == 0;
    }
    return true;
}

std::vector<std::string> UpgradeBackup::sPendingIds() {
    std::vector<std::string> ids;
    datacenter::PluginTree root(PluginManager::sGetPluginRootPath());
    const datacenter::UniqueFd staging(root.openDirectory(InstallAction::sLocalInstallTmpDir, false, 0));
    DIR* stream = staging.valid() ? ::fdopendir(::fcntl(staging.get(), F_DUPFD_CLOEXEC, 0)) : nullptr;
    if (!stream) {
        return ids;
    }
    const std::string suffix = kPreviousSuffix;
    while (const dirent* item = ::readdir(stream)) {
        const std::string name = item->d_name;
        if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
            const std::string id = name.substr(0, name.size() - suffix.size());
            if (datacenter::isSafePluginId(id) && sPending(id)) {
                ids.push_back(id);
            }
        }
    }
    ::closedir(stream);
    return ids;
}

void UpgradeBackup::sClearStaging() {
    const std::string staging = PluginManager::sGetPluginRootPath() + InstallAction::sLocalInstallTmpDir;
    const std::vector<std::string> pending = sPendingIds();
    if (pending.empty()) {
        InstallJournal::sRemoveBelowRoot(staging);
        return;
    }
    datacenter::PluginTree root(PluginManager::sGetPluginRootPath());
    const datacenter::UniqueFd folder(root.openDirectory(InstallAction::sLocalInstallTmpDir, false, 0));
    std::vector<std::string> names;
    if (!folder.valid() || !datacenter::TreeRemoval::sList(folder.get(), names)) {
        return;
    }
    for (const std::string& name : names) {
        bool keep = false;
        for (const std::string& id : pending) {
            keep = keep || name == id + kPreviousSuffix;
        }
        if (!keep) {
            InstallJournal::sRemoveBelowRoot(staging + name);
        }
    }
}

void UpgradeBackup::discard() {
    list_.reset();
    seen_.clear();
    InstallJournal::sRemoveBelowRoot(PluginManager::sGetPluginRootPath() + folder_);
}
