#include "sign/PluginArchive.h"

#include <zip.h>

#include <algorithm>
#include <filesystem>
#include <libconfig.h++>
#include <memory>
#include <vector>

namespace packagesign {

namespace {

namespace fs = std::filesystem;

// A manifest is a short settings file; anything larger is not one.
constexpr zip_uint64_t kMaxManifestSize = 1024 * 1024;

struct ZipCloser {
    void operator()(zip_t* archive) const { zip_discard(archive); }
};
using ZipPtr = std::unique_ptr<zip_t, ZipCloser>;

// Collects the regular files below `dir` (relative names, sorted), or returns the reason why the tree cannot be packed.
std::string collectFiles(const fs::path& dir, const fs::path& skip, std::vector<std::string>& names) {
    std::error_code ec;
    for (fs::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::file_status status = it->symlink_status(ec);
        if (ec) {
            break;
        }
        const std::string name = it->path().lexically_relative(dir).generic_string();
        if (fs::is_symlink(status)) {
            return "symbolic links cannot be packed: " + name;
        }
        if (fs::is_directory(status)) {
            continue;
        }
        if (!fs::is_regular_file(status)) {
            return "only regular files can be packed: " + name;
        }
        if (!fs::equivalent(it->path(), skip, ec)) {
            names.push_back(name);
        }
        ec.clear();
    }
    if (ec) {
        return "cannot read " + dir.string() + ": " + ec.message();
    }
    std::sort(names.begin(), names.end());
    return std::string();
}

std::string writeZip(const std::string& dir, const std::vector<std::string>& names, const std::string& zipPath) {
    int error = 0;
    ZipPtr archive(zip_open(zipPath.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error));
    if (!archive) {
        return "cannot create " + zipPath;
    }
    for (const auto& name : names) {
        const std::string source = dir + "/" + name;
        zip_source_t* data = zip_source_file(archive.get(), source.c_str(), 0, -1);
        if (!data) {
            return "cannot read " + source;
        }
        if (zip_file_add(archive.get(), name.c_str(), data, ZIP_FL_ENC_UTF_8) < 0) {
            zip_source_free(data);
            return "cannot add " + name + ": " + zip_strerror(archive.get());
        }
    }
    if (zip_close(archive.get()) != 0) {
        return "cannot write " + zipPath + ": " + zip_strerror(archive.get());
    }
    archive.release();  // zip_close freed it
    return std::string();
}

std::string settingText(const libconfig::Config& config, const char* key) {
    if (!config.exists(key)) {
        return std::string();
    }
    const libconfig::Setting& setting = config.lookup(key);
    switch (setting.getType()) {
        case libconfig::Setting::TypeString:
            return static_cast<const char*>(setting);
        case libconfig::Setting::TypeInt:
            return std::to_string(static_cast<int>(setting));
        case libconfig::Setting::TypeInt64:
            return std::to_string(static_cast<long long>(setting));
        default:
            return std::string();
    }
}

std::string readEntry(zip_t* archive, const char* name, std::string& text) {
    zip_stat_t st;
    zip_stat_init(&st);
    if (zip_stat(archive, name, 0, &st) != 0 || !(st.valid & ZIP_STAT_SIZE)) {
        return std::string("the payload has no ") + name;
    }
    if (st.size > kMaxManifestSize) {
        return std::string("the payload's ") + name + " is too large";
    }
    zip_file_t* file = zip_fopen(archive, name, 0);
    text.assign(st.size, '\0');
    const zip_int64_t n = file ? zip_fread(file, &text[0], st.size) : -1;
    if (file) {
        zip_fclose(file);
    }
    return n == static_cast<zip_int64_t>(st.size) ? std::string() : std::string("cannot read ") + name;
}

}  // namespace

std::string packPluginTree(const std::string& dir, const std::string& zipPath, size_t& fileCount) {
    std::error_code ec;
    if (!fs::is_regular_file(fs::symlink_status(fs::path(dir) / "manifest", ec))) {
        return "no manifest at the top of " + dir;
    }
    std::vector<std::string> names;
    std::string error = collectFiles(dir, zipPath, names);
    if (error.empty()) {
        error = writeZip(dir, names, zipPath);
    }
    fileCount = error.empty() ? names.size() : 0;
    return error;
}

std::string readPayloadManifest(const std::string& packagePath, uint64_t payloadSize, ManifestFields& fields) {
    if (payloadSize == 0) {
        return "the payload is empty";
    }
    zip_error_t zerror;
    zip_error_init(&zerror);
    zip_source_t* source =
        zip_source_file_create(packagePath.c_str(), 0, static_cast<zip_int64_t>(payloadSize), &zerror);
    ZipPtr archive(source ? zip_open_from_source(source, ZIP_RDONLY | ZIP_CHECKCONS, &zerror) : nullptr);
    if (!archive) {
        if (source) {
            zip_source_free(source);
        }
        const std::string reason = std::string("the payload is not a readable zip: ") + zip_error_strerror(&zerror);
        zip_error_fini(&zerror);
        return reason;
    }
    zip_error_fini(&zerror);
    std::string text;
    std::string error = readEntry(archive.get(), "manifest", text);
    if (!error.empty()) {
        return error;
    }
    try {
        libconfig::Config config;
        config.readString(text);
        fields.pluginId = settingText(config, "plugin_id");
        fields.version = settingText(config, "version");
    } catch (const libconfig::ConfigException& e) {
        return std::string("the manifest cannot be parsed: ") + e.what();
    }
    return std::string();
}

}  // namespace packagesign
