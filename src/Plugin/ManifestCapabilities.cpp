#include "Plugin/ManifestCapabilities.h"

#include <fcntl.h>
#include <glog/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <vector>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "common/Singleton.h"
#include "storage/PluginTree.h"
#include "storage/UniqueFd.h"
#include "system/LibconfigFile.h"

namespace {

const char* const kManifest = "etc/manifest";
const char* const kListKey = "capability_list";
const size_t kMaxManifestBytes = 1024 * 1024;

bool readAll(int fd, std::string& text) {
    char buffer[8192];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof(buffer));
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            return true;
        }
        text.append(buffer, static_cast<size_t>(got));
        if (text.size() > kMaxManifestBytes) {
            return false;
        }
    }
}

std::vector<std::string> listOf(const libconfig::Config& document) {
    std::vector<std::string> names;
    const libconfig::Setting& root = document.getRoot();
    if (!root.exists(kListKey)) {
        return names;
    }
    const libconfig::Setting& list = root[kListKey];
    for (int i = 0; i < list.getLength(); ++i) {
        if (list[i].getType() == libconfig::Setting::TypeString) {
            names.push_back(static_cast<const char*>(list[i]));
        } else {
            names.push_back(std::string());  // never equal to a recorded name
        }
    }
    return names;
}

// The document as libconfig writes it.
bool serialise(const libconfig::Config& document, std::string& text) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&buffer, &size);
    if (!stream) {
        return false;
    }
    document.write(stream);
    const bool ok = std::fclose(stream) == 0;
    if (buffer) {
        text.assign(buffer, size);
        std::free(buffer);
    }
    return ok;
}

bool writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = ::write(fd, text.data() + done, text.size() - done);
        if (wrote <= 0) {
            return false;
        }
        done += static_cast<size_t>(wrote);
    }
    return ::fsync(fd) == 0;
}

ApiErrorCode refuse(const std::string& id, const std::string& reason) {
    LOG(ERROR) << "plugin " << id << " is not started: its " << kManifest << " " << reason;
    return API_NO_MANIFEST;
}

}  // namespace

ApiErrorCode ManifestCapabilities::sMatchStore(const std::string& id) {
    const std::map<std::string, datacenter::PluginInfo> infos =
        Singleton<PluginStorageManager>::instance()->getListablePluginInfos();
    const auto found = infos.find(id);
    if (found == infos.end()) {
        LOG(ERROR) << "plugin " << id << " is not started: the store has no record of it";
        return API_NO_SUCH_PLUGIN;
    }
    const datacenter::PluginInfo& info = found->second;
    datacenter::PluginTree tree(PluginManager::sGetPluginDataPath(id));
    datacenter::UniqueFd file(tree.isOpen() ? tree.openFile(kManifest, O_RDONLY, 0) : -1);
    if (file.get() < 0 && tree.isOpen() && errno == ENOENT && !tree.isLink(kManifest)) {
        // Nothing for the controller to read: it grants nothing.
        return API_SUCCESS;
    }
    struct stat st;
    std::string text;
    if (file.get() < 0 || ::fstat(file.get(), &st) != 0 || !readAll(file.get(), text)) {
        return refuse(id, "cannot be read: " + (tree.isOpen() ? tree.lastError() : "no data directory"));
    }
    libconfig::Config document;
    try {
        datacenter::LibconfigFile::sReadPlainString(document, text, kManifest);
        if (listOf(document) == info.capabilityList) {
            return API_SUCCESS;
        }
        libconfig::Setting& root = document.getRoot();
        if (root.exists(kListKey)) {
            root.remove(kListKey);
        }
        libconfig::Setting& list = root.add(kListKey, libconfig::Setting::TypeArray);
        for (const std::string& name : info.capabilityList) {
            list.add(libconfig::Setting::TypeString) = name;
        }
    } catch (const std::exception& e) {
        return refuse(id, "does not parse: " + datacenter::LibconfigFile::sDescribe(e));
    }
    std::string replacement;
    char suffix[16];
    std::snprintf(suffix, sizeof(suffix), "%06d", static_cast<int>(::getpid() % 1000000));
    const std::string temporary = std::string(kManifest) + ".tmp." + suffix;
    tree.remove(temporary);
    datacenter::UniqueFd out(tree.openFile(temporary, O_WRONLY | O_CREAT | O_EXCL, st.st_mode & 07777));
    if (!serialise(document, replacement) || out.get() < 0 || ::fchmod(out.get(), st.st_mode & 07777) != 0 ||
        !writeAll(out.get(), replacement) || !tree.rename(temporary, kManifest)) {
        const std::string reason = tree.lastError();
        tree.remove(temporary);
        return refuse(id, "cannot be rewritten with the recorded capabilities: " + reason);
    }
    LOG(WARNING) << "plugin " << id << ": the capability list of its " << kManifest
                 << " differed from the installed record and was restored";
    return API_SUCCESS;
}
