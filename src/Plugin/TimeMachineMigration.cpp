#include "Plugin/TimeMachineMigration.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <libgen.h>
#include <unistd.h>

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/Plugin.h"
#include "Plugin/PluginManager.h"
#include "common/ShellArgument.h"
#include "common/Singleton.h"
#include "storage/Directory.h"
#include "storage/Durability.h"
#include "storage/PluginTree.h"
#include "storage/UniqueFd.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/RootPrefix.h"

namespace {

const std::vector<int> kThreshold = {1, 3};
const size_t kPathMax = 4095;

std::string oldPrefix() {
    return datacenter::ConfigInfo::sGetInstance()->getUserdiskAppDataPath() + "/" + TimeMachineInfo::getPluginId();
}

// The version's numbers; throws boost::bad_lexical_cast for a piece that is not one.
std::vector<int> versionNumbers(const std::string& version) {
    std::vector<int> numbers;
    for (const std::string& piece : CommonUtils::splitString(version, ".")) {
        if (!piece.empty()) {
            numbers.push_back(boost::lexical_cast<int>(piece));
        }
    }
    return numbers;
}

// True when `relative` below the folder `base` is a folder reached without
// passing a link, or (when `mayBeMissing`) is not there at all. The old
// version wrote its own tree and, with the user disk bound into its sandbox,
// the backup folder: a link in either would move, copy or delete elsewhere.
bool plainFolder(const std::string& base, const std::string& relative, bool mayBeMissing) {
    datacenter::PluginTree tree(base);
    if (!tree.isOpen()) {
        LOG(ERROR) << "timemachine: " << base << " is not a folder; its data is not migrated";
        return false;
    }
    const int fd = tree.openDirectory(relative, false, 0);
    if (fd >= 0) {
        close(fd);
        return true;
    }
    if (mayBeMissing && errno == ENOENT && !tree.isLink(relative)) {
        return true;
    }
    LOG(ERROR) << "timemachine: " << base << "/" << relative << " is a link or not a folder; its data is not migrated ("
               << tree.lastError() << ")";
    return false;
}

std::string backupRoot() {
    return datacenter::RootPrefix::sPath("/userdisk/data");
}

void moveAfpData() {
    if (!datacenter::Directory::sExists(afpOlddir())) {
        return;
    }
    if (!plainFolder(oldPrefix(), "userdisk/afp", false) || !plainFolder(backupRoot(), "timecapsule/afp", true)) {
        return;
    }
    const datacenter::ErrorCode copied = datacenter::Directory::sCopyDirectory(afpOlddir(), afpNewdir());
    if (!copied.ok()) {
        LOG(ERROR) << "PluginManager::moveTimeMachineData, move afp directory error message: "
                   << copied.systemError().message();
    }
    const datacenter::ErrorCode deleted = datacenter::Directory::sDelete(afpOlddir(), true);
    if (!deleted.ok()) {
        LOG(ERROR) << "PluginManager::moveTimeMachineData, delete oldafp directory error message: "
                   << deleted.systemError().message();
    }
}

}  // namespace

std::string timecapsuleOlddir() {
    return oldPrefix() + TimeMachineInfo::getData() + "/";
}
std::string afpOlddir() {
    return oldPrefix() + TimeMachineInfo::getAfpData() + "/";
}
std::string timecapsuleNewdir() {
    return datacenter::RootPrefix::sPath("/userdisk/data/timecapsule/");
}
std::string afpNewdir() {
    return datacenter::RootPrefix::sPath("/userdisk/data/timecapsule/afp/");
}

void PluginManager::moveTimeMachineData(const std::string& id) {
    if (id != TimeMachineInfo::getPluginId()) {
        return;
    }
    const std::string version = Singleton<PluginStorageManager>::instance()->getPluginInfoById(id).version;
    std::vector<int> numbers;
    try {
        numbers = versionNumbers(version);
    } catch (const std::exception& e) {
        LOG(ERROR) << "installplugin, catch std::exception: " << e.what();
        return;
    } catch (...) {
        LOG(ERROR) << "installplugin, catch exception.";
        return;
    }
    if (!std::lexicographical_compare(kThreshold.begin(), kThreshold.end(), numbers.begin(), numbers.end())) {
        return;
    }
    if (plainFolder(oldPrefix(), "userdisk/timecapsule", true) && plainFolder(backupRoot(), "timecapsule", true)) {
        mvTimemachinePluginData(timecapsuleOlddir(), timecapsuleNewdir());
    }
    moveAfpData();
}

void PluginManager::mvTimemachinePluginData(const std::string& from, const std::string& to) const {
    const std::string target = to.substr(0, kPathMax);
    std::vector<char> copy(target.begin(), target.end());
    copy.push_back('\0');
    const std::string parent = dirname(copy.data());
    if (access(parent.c_str(), F_OK) == 0) {
        const std::string command = "mv " + datacenter::shellArgument(from) + " " + datacenter::shellArgument(parent);
        if (command.size() <= kPathMax) {
            callSystem(command, exitcode2Apicode);
        }
    }
    std::vector<char> path(target.begin(), target.end());
    path.push_back('\0');
    if (datacenter::Directory::make_dir(path.data(), 0777) != 0) {
        LOG(ERROR) << "timemachine, mkdir: " << target << ", fail!";
    }
}

namespace {

bool present(const std::string& path) {
    return datacenter::Directory::sExists(path);
}

// Renames the folder `name` of `fromBase`/`fromFolder` to the same name in
// `toBase`/`toFolder`, each folder opened without following a link.
bool moveFolderBack(const std::string& fromBase, const std::string& fromFolder, const std::string& toBase,
                    const std::string& toFolder, const char* name) {
    datacenter::PluginTree from(fromBase);
    datacenter::PluginTree to(toBase);
    const datacenter::UniqueFd source(from.isOpen() ? from.openDirectory(fromFolder, false, 0) : -1);
    const datacenter::UniqueFd target(to.isOpen() ? to.openDirectory(toFolder, true, 0777) : -1);
    if (!source.valid() || !target.valid() || ::renameat(source.get(), name, target.get(), name) != 0) {
        LOG(ERROR) << "timemachine: cannot move " << fromBase << "/" << fromFolder << "/" << name << " back to "
                   << toBase << "/" << toFolder << ": " << strerror(errno);
        return false;
    }
    return datacenter::Durability::sFolderChanged(target.get()) && datacenter::Durability::sFolderChanged(source.get());
}

}  // namespace

TimeMachineMove TimeMachineMove::sBefore() {
    TimeMachineMove move;
    move.oldTimecapsule_ = present(timecapsuleOlddir());
    move.newTimecapsule_ = present(timecapsuleNewdir());
    move.oldAfp_ = present(afpOlddir());
    move.newAfp_ = present(afpNewdir());
    return move;
}

std::string TimeMachineMove::text() const {
    std::string line = "before";
    for (const bool seen : {oldTimecapsule_, newTimecapsule_, oldAfp_, newAfp_}) {
        line += seen ? " 1" : " 0";
    }
    return line + "\n";
}

bool TimeMachineMove::sFromText(const std::string& text, TimeMachineMove& move) {
    // "before" and four flags " 0" or " 1", as text() writes them.
    const std::string word = "before";
    bool* const flags[] = {&move.oldTimecapsule_, &move.newTimecapsule_, &move.oldAfp_, &move.newAfp_};
    const size_t count = sizeof flags / sizeof flags[0];
    if (text.size() != word.size() + 2 * count + 1 || text.compare(0, word.size(), word) != 0 || text.back() != '\n') {
        return false;
    }
    for (size_t i = 0; i < count; ++i) {
        const char flag = text[word.size() + 2 * i + 1];
        if (text[word.size() + 2 * i] != ' ' || (flag != '0' && flag != '1')) {
            return false;
        }
        *flags[i] = flag == '1';
    }
    return true;
}

void TimeMachineMove::after() {
    timecapsule_ = oldTimecapsule_ && !newTimecapsule_ && !present(timecapsuleOlddir()) && present(timecapsuleNewdir());
    afp_ = oldAfp_ && !newAfp_ && !present(afpOlddir()) && present(afpNewdir());
}

bool TimeMachineMove::undo() const {
    bool ok = true;
    if (afp_) {
        ok = moveFolderBack(backupRoot(), "timecapsule", oldPrefix(), "userdisk", "afp") && ok;
    }
    if (timecapsule_) {
        ok = moveFolderBack(backupRoot(), "", oldPrefix(), "userdisk", "timecapsule") && ok;
    }
    return ok;
}
