// Emptying a plugin's directory down to the sandbox skeleton that every
// plugin directory keeps. The directory belongs to the plugin, which may have
// planted links anywhere in it, so the walk works on directory descriptors
// and removes a link as a link, never looking behind it.
#include <glog/logging.h>

#include <algorithm>
#include <vector>

#include "Plugin/PluginManager.h"
#include "storage/TreeRemoval.h"
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

class MyRemoveFiles {
public:
    // Walks the open directory `dirFd`, whose path is `path` (root + its
    // relative path); entries outside the skeleton go, skeleton folders that
    // are walked into are handled the same way one level down.
    static void myDeleteFiles(const std::string& root, const std::string& path, int dirFd) {
        LOG(INFO) << "Fun, MyRemoveFiles::myDeleteFiles: isNotLeafNode: " << path;
        std::vector<std::string> names;
        if (!TreeRemoval::sList(dirFd, names)) {
            LOG(ERROR) << "Fun, MyRemoveFiles::myDeleteFiles: exception: cannot list " << path;
            return;
        }
        const std::string prefix = path.back() == '/' ? path : path + "/";
        for (const std::string& name : names) {
            visit(root, prefix + name, dirFd, name);
        }
    }

private:
    static void visit(const std::string& root, const std::string& path, int parentFd, const std::string& name) {
        try {
            const std::string rel = path.substr(root.size());
            const TreeRemoval::Kind kind = TreeRemoval::sKindAt(parentFd, name);
            // A link never stands for a skeleton entry: it goes, as a link.
            if (!contains(skeleton(), rel) || kind == TreeRemoval::LINK) {
                LOG(INFO) << "Fun, MyRemoveFiles::myDeleteFiles: remove_all: " << path;
                std::string error;
                if (!TreeRemoval::sRemoveAt(parentFd, name, error)) {
                    LOG(ERROR) << "Fun, MyRemoveFiles::myDeleteFiles: exception: " << error;
                }
                return;
            }
            datacenter::UniqueFd child;
            if (contains(walkedInto(), rel) && kind == TreeRemoval::DIRECTORY) {
                child = TreeRemoval::sOpenAt(parentFd, name);
            }
            if (!child.valid()) {
                LOG(INFO) << "Fun, MyRemoveFiles::myDeleteFiles: DoNothing " << path;
                return;
            }
            myDeleteFiles(root, path, child.get());
        } catch (const std::exception& e) {
            LOG(ERROR) << "Fun, MyRemoveFiles::myDeleteFiles: exception: " << e.what();
        }
    }
};

}  // namespace

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
    const std::string root = dir.substr(0, dir.size() - 1);
    MyRemoveFiles::myDeleteFiles(root, root + "/", dirFd.get());
    return API_SUCCESS;
}
