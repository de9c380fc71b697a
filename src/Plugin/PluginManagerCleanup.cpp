// Emptying a plugin's directory down to the sandbox skeleton that every
// plugin directory keeps, and resetting it to what its package brought. The
// directory belongs to the plugin, which may have planted links anywhere in
// it and may rewrite its own record of files, so the walks work on directory
// descriptors, remove a link as a link, never leave the directory's file
// system, and always keep the directory itself and its skeleton: the record
// can only ever add to what stays.
#include <fcntl.h>
#include <glog/logging.h>

#include <algorithm>
#include <iostream>
#include <vector>

#include "Plugin/PluginManager.h"
#include "Plugin/installAction/InstallAction.h"
#include "common/PluginId.h"
#include "storage/Durability.h"
#include "storage/PlainFile.h"
#include "storage/TreeRemoval.h"
#include "system/CommonUtils.h"
#include "system/ProcessOwnership.h"
#include "system/RootPrefix.h"

using datacenter::TreeRemoval;

namespace {

// Paths relative to the plugin's directory ("/" is the directory itself).
const std::vector<std::string>& skeleton() {
    static const std::vector<std::string> paths = [] {
        std::vector<std::string> list = {
            "/",         "/etc",    "/usr",       "/bin",          "/lib",        "/userdata",
            "/extdisks", "/etc/TZ", "/etc/group", "/etc/manifest", "/etc/passwd", "/etc/plugin_config",
            ""};
        std::sort(list.begin(), list.end());
        return list;
    }();
    return paths;
}

const std::vector<std::string>& walkedInto() {
    static const std::vector<std::string> paths = {"/", "/etc", "/usr"};
    return paths;
}

bool contains(const std::vector<std::string>& sorted, const std::string& value) {
    return std::binary_search(sorted.begin(), sorted.end(), value);
}

const char* const kController = "pluginControllor";

// True for a line that names the data directory or something below it
// without climbing back out of it.
bool isBelow(const std::string& dir, const std::string& line) {
    if (line.compare(0, dir.size(), dir) != 0) {
        return false;
    }
    const std::string rest = "/" + line.substr(dir.size()) + "/";
    return rest.find("/../") == std::string::npos && rest.find("/./") == std::string::npos;
}

// What cleanPlugin keeps of the directory `dir`: the folders the installer
// ignores and the skeleton, as they are, then every recorded path below the
// directory that these do not already decide.
std::map<std::string, bool> cleanKeepMap(const std::string& dir, const std::string& record) {
    std::map<std::string, bool> keep = InstallAction::getIgnoreFiles(dir);
    for (const std::string& rel : skeleton()) {
        if (!rel.empty()) {
            keep.emplace(dir + rel.substr(1), contains(walkedInto(), rel));
        }
    }
    for (size_t at = 0; at < record.size();) {
        size_t end = record.find('\n', at);
        end = end == std::string::npos ? record.size() : end;
        const std::string line = record.substr(at, end - at);
        if (isBelow(dir, line)) {
            keep.emplace(line, true);
        }
        at = end + 1;
    }
    return keep;
}

// The keep-map walk below the open directory `dirFd` (whose path is `path`):
// links go, recorded files stay, directories stay whole (false), are walked
// into (true) or go with their content (absent); anything else stays.
bool walkKeepMap(int dirFd, const std::string& path, const std::map<std::string, bool>& keep, std::string& error) {
    TreeRemoval::Rules rules;
    rules.decide = [&keep](const TreeRemoval::Entry& entry) {
        const auto found = keep.find(entry.path);
        switch (entry.kind) {
            case TreeRemoval::LINK:
                return TreeRemoval::REMOVE;
            case TreeRemoval::REGULAR:
                return found == keep.end() ? TreeRemoval::REMOVE : TreeRemoval::KEEP;
            case TreeRemoval::DIRECTORY:
                if (found == keep.end()) {
                    return TreeRemoval::REMOVE;
                }
                return found->second ? TreeRemoval::ENTER : TreeRemoval::KEEP;
            default:
                return TreeRemoval::KEEP;
        }
    };
    return TreeRemoval::sWalk(dirFd, path, rules, error);
}

// removeFileIterative for the start path itself, which is the caller's: a
// file, a link or a directory that is not kept goes from its parent.
bool removeStart(const std::string& path, const std::map<std::string, bool>& keep, std::string& error) {
    std::string leaf;
    const datacenter::UniqueFd parent = datacenter::openParentFolder(path, leaf);
    const TreeRemoval::Kind kind = parent.valid() ? TreeRemoval::sKindAt(parent.get(), leaf) : TreeRemoval::MISSING;
    const auto found = keep.find(path);
    if (kind == TreeRemoval::MISSING) {
        LOG(ERROR) << "File path '" + path + "' Do Not exist\n";
        return false;
    }
    if (kind == TreeRemoval::OTHER || (found != keep.end() && kind == TreeRemoval::REGULAR) ||
        (found != keep.end() && kind == TreeRemoval::DIRECTORY && !found->second)) {
        return true;
    }
    if (found == keep.end() || kind != TreeRemoval::DIRECTORY) {
        return TreeRemoval::sRemoveAt(parent.get(), leaf, error);
    }
    const datacenter::UniqueFd dir = TreeRemoval::sOpenAt(parent.get(), leaf);
    if (!dir.valid()) {
        error = "cannot walk " + path;
        return false;
    }
    return walkKeepMap(dir.get(), path, keep, error);
}

// Why a keep-map walk stopped, in the log and on standard output, where the
// operator running the clean sees it.
void reportWalkFailure(const std::string& error) {
    if (!error.empty()) {
        LOG(ERROR) << error << "\n";
        std::cout << error << std::endl;
    }
}

// The walk of cleanPluginImpl: entries outside the skeleton go, skeleton
// folders that are walked into are handled the same way one level down, the
// rest of the skeleton stays. A link never stands for a skeleton entry.
class MyRemoveFiles {
public:
    static bool myDeleteFiles(const std::string& root, int dirFd, std::string& error) {
        LOG(INFO) << "Fun, MyRemoveFiles::myDeleteFiles: isNotLeafNode: " << root << "/";
        TreeRemoval::Rules rules;
        rules.decide = [&root](const TreeRemoval::Entry& entry) { return decide(root, entry); };
        rules.failed = [](const std::string& text) {
            LOG(ERROR) << "Fun, MyRemoveFiles::myDeleteFiles: exception: " << text;
            return true;
        };
        return TreeRemoval::sWalk(dirFd, root + "/", rules, error);
    }

private:
    static TreeRemoval::Decision decide(const std::string& root, const TreeRemoval::Entry& entry) {
        const std::string rel = entry.path.substr(root.size());
        if (!contains(skeleton(), rel) || entry.kind == TreeRemoval::LINK) {
            LOG(INFO) << "Fun, MyRemoveFiles::myDeleteFiles: remove_all: " << entry.path;
            return TreeRemoval::REMOVE;
        }
        if (contains(walkedInto(), rel) && entry.kind == TreeRemoval::DIRECTORY) {
            LOG(INFO) << "Fun, MyRemoveFiles::myDeleteFiles: isNotLeafNode: " << entry.path;
            return TreeRemoval::ENTER;
        }
        LOG(INFO) << "Fun, MyRemoveFiles::myDeleteFiles: DoNothing " << entry.path;
        return TreeRemoval::KEEP;
    }
};

}  // namespace

ApiErrorCode PluginManager::cleanPlugin(const std::string& id) {
    if (!datacenter::isSafePluginId(id)) {
        LOG(ERROR) << "cleanPlugin: invalid plugin id '" << id << "'";
        return API_FAILED;
    }
    CommonUtils::sCallSystem(std::string(kController) + " -k " + id);
    const std::string dir = sGetPluginDataPath(id);
    if (datacenter::ProcessOwnership::sStopAll(id, dir) != 0) {
        LOG(ERROR) << "cleanPlugin: plugin " << id << " could not be stopped";
        return API_FAILED;
    }
    LOG(INFO) << "plugin install dir is " << dir;
    const datacenter::UniqueFd dirFd = TreeRemoval::sOpenDirectory(dir);
    std::string record;
    std::string why = "the plugin's directory cannot be opened";
    if (!dirFd.valid() || !datacenter::PlainFile::sReadAt(dirFd.get(), InstallAction::sInitFilesRecordName,
                                                          InstallAction::sInitFilesRecordLimit, record, why)) {
        LOG(ERROR) << "File(read) Open error " << API_INIT_FILES_RECORD_FAILED;
        LOG(ERROR) << "cleanPlugin: " << dir << InstallAction::sInitFilesRecordName << ": " << why;
        return API_INIT_FILES_RECORD_FAILED;
    }
    std::string error;
    if (!walkKeepMap(dirFd.get(), dir, cleanKeepMap(dir, record), error)) {
        reportWalkFailure(error);
        LOG(ERROR) << "remove file error, error code is " << API_REMOVE_WALK_FAILED;
        return API_REMOVE_WALK_FAILED;
    }
    // What the clean removed stays removed before the plugin starts again.
    datacenter::Durability::sCommit(dirFd.get());
    CommonUtils::sCallSystem(std::string(kController) + " -b " + id);
    return API_SUCCESS;
}

bool PluginManager::removeFileIterative(const std::string& path, const std::map<std::string, bool>& keep) const {
    std::string error;
    if (removeStart(path, keep, error)) {
        return true;
    }
    reportWalkFailure(error);
    return false;
}

ApiErrorCode PluginManager::cleanPluginImpl(const std::string& id) const {
    const std::string dir = sGetPluginDataPath(id);
    datacenter::UniqueFd dirFd;
    if (!dir.empty() && !datacenter::RootPrefix::sIsRootItself(dir)) {
        dirFd = TreeRemoval::sOpenDirectory(dir);
    }
    if (!dirFd.valid()) {
        LOG(ERROR) << "PluginManager::cleanPlugin: plugindir not exists";
        return API_GENERAL_FAILURE;
    }
    // The directory itself is never removed, and the walk never leaves its file system.
    const std::string root = dir.substr(0, dir.size() - 1);
    std::string error;
    if (!MyRemoveFiles::myDeleteFiles(root, dirFd.get(), error)) {
        LOG(ERROR) << "PluginManager::cleanPlugin: walk stopped: " << error;
        return API_GENERAL_FAILURE;
    }
    return API_SUCCESS;
}
