#include "Plugin/TimeMachineMigration.h"

#include <glog/logging.h>
#include <libgen.h>
#include <unistd.h>

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <cstdio>
#include <cstring>
#include <vector>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/Plugin.h"
#include "Plugin/PluginManager.h"
#include "common/ShellArgument.h"
#include "common/Singleton.h"
#include "storage/Directory.h"
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

void moveAfpData() {
    if (!datacenter::Directory::sExists(afpOlddir())) {
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
    mvTimemachinePluginData(timecapsuleOlddir(), timecapsuleNewdir());
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
