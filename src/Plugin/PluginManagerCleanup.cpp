// Removing what a plugin left behind: its chroot mounts, and the files of its
// directory down to the sandbox skeleton that every plugin directory keeps.
#include <glog/logging.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <vector>

#include "Plugin/PluginManager.h"
#include "common/ShellArgument.h"
#include "storage/File.h"
#include "system/CommonUtils.h"
#include "system/RootPrefix.h"

namespace fs = boost::filesystem;

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
    static void myDeleteFiles(const fs::path& root, const fs::path& path) {
        try {
            const std::string rel = path.string().substr(root.string().size());
            boost::system::error_code ec;
            if (!contains(skeleton(), rel)) {
                LOG(INFO) << "Fun, MyRemoveFiles::myDeleteFiles: remove_all: " << path.string();
                fs::remove_all(path);
            } else if (!contains(walkedInto(), rel) || !fs::is_directory(fs::symlink_status(path, ec))) {
                // Kept whole; a link in place of a skeleton folder is never followed.
                LOG(INFO) << "Fun, MyRemoveFiles::myDeleteFiles: DoNothing " << path.string();
            } else {
                LOG(INFO) << "Fun, MyRemoveFiles::myDeleteFiles: isNotLeafNode: " << path.string();
                for (fs::directory_iterator it(path), end; it != end; ++it) {
                    myDeleteFiles(root, it->path());
                }
            }
        } catch (const std::exception& e) {
            LOG(ERROR) << "Fun, MyRemoveFiles::myDeleteFiles: exception: " << e.what();
        }
    }
};

}  // namespace

ApiErrorCode PluginManager::cleanPluginImpl(const std::string& id) const {
    const std::string dir = sGetPluginDataPath(id);
    if (dir.empty() || !datacenter::File::sExists(dir) || datacenter::RootPrefix::sIsRootItself(dir)) {
        LOG(ERROR) << "PluginManager::cleanPlugin: plugindir not exists";
        return API_GENERAL_FAILURE;
    }
    const std::string root = dir.substr(0, dir.size() - 1);
    MyRemoveFiles::myDeleteFiles(root, root + "/");
    return API_SUCCESS;
}

ApiErrorCode PluginManager::umountRemoveChrootFolder(const std::string& id, std::string& output) {
    if (id.empty()) {
        LOG(ERROR) << "umountRemoveChrootFolder para empty!";
        return API_FAILED;
    }
    if (!CommonUtils::sCallSystem(sUnmountChrootPath + " " + datacenter::shellArgument(sGetPluginDataPath(id)),
                                  output)) {
        return API_FAILED;
    }
    if (!output.empty() && output.back() == '\n') {
        output.pop_back();
    }
    return API_SUCCESS;
}
