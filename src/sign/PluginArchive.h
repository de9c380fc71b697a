#pragma once
// The zip payload of a package: packing a plugin tree into it and reading
// the manifest back out of a package.
#include <cstdint>
#include <string>

namespace packagesign {

// Packs the plugin tree `dir` into the zip archive `zipPath`: one entry per
// regular file, named by its path relative to `dir`, no directory entries.
// Returns an empty string on success (with `fileCount` set), otherwise the
// reason: no "manifest" at the top of `dir`, a symbolic link or special file
// in the tree, an unreadable tree or an archive that cannot be written.
std::string packPluginTree(const std::string& dir, const std::string& zipPath, size_t& fileCount);

struct ManifestFields {
    std::string pluginId;  // "plugin_id"
    std::string version;   // "version"
};

// Reads the "manifest" entry of the zip archive that occupies the first
// `payloadSize` bytes of `packagePath` and takes its "plugin_id" and
// "version" (empty when absent). Returns an empty string on success,
// otherwise the reason.
std::string readPayloadManifest(const std::string& packagePath, uint64_t payloadSize, ManifestFields& fields);

}  // namespace packagesign
