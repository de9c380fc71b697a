#pragma once
// Work on a package's payload shared by the install pipeline and the
// manager's helpers of the same names: checking a local package into a
// working directory, reading the plugin id, unpacking, and the walk that
// records the files a plugin brought.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/ApiErrorCode.h"

class UpgradeBackup;

class PackageFiles {
public:
    // Checks `package`'s signature into the working directory below the plugin
    // root: 0, 2 (empty path), 2503 (missing) or 2508 (not authentic).
    static ApiErrorCode sPutPackageToTmpDir(const std::string& package, std::string& tmpDir, std::string& zipPath);
    // The folder where packages are downloaded and verified payloads staged:
    // "local_install_tmp/" below the plugin root, owned by the installer and
    // closed to everyone else (0700), so nothing verified can be swapped
    // before it is read. "" when it cannot be made safe (the reason is logged).
    static std::string sStagingDir();
    // Logs why the signing library refused a package, in words, after the
    // line with its code. `err` is errno right after the call.
    static void sLogSignRefusal(const char* who, int code, int err);
    // The "plugin_id" of the payload's "manifest" (the entry of exactly that
    // name), or "" when there is none, when the archive's end records cannot
    // be followed, or when the manifest would pull in other files with
    // "@include".
    static std::string sGetIdFromPackage(const std::string& zipPath);
    // The same for the payload in the first `size` bytes of `fd`; `label`
    // names it in log lines.
    static std::string sGetIdFromPayload(int fd, uint64_t size, const std::string& label);
    // The text of the payload's top-level "manifest" (at most 1 MiB), or ""
    // when it has none or it cannot be read.
    static std::string sReadPayloadManifest(int fd, uint64_t size, const std::string& label);
    // The same for the zip archive at `zipPath`.
    static std::string sReadPackageManifest(const std::string& zipPath);
    // Unpacks every entry below `destDir`. Refuses, before writing anything,
    // archives whose headers disagree (see ArchiveLayout.h) or that hold
    // encrypted entries, unsupported methods or several disks, and entries
    // that are absolute, climb out with "..", are links, repeat a name, or
    // would not leave the copy reserve free on the destination. Refuses
    // during the copy data that does not match its declared size or CRC.
    // With `backup`, every entry an old version has at a name is moved aside
    // into it before the name is written, and every new name is listed there.
    static bool sUnzip(const std::string& zipPath, const std::string& destDir, UpgradeBackup* backup = nullptr);
    // The same for the payload in the first `size` bytes of `fd`, read by
    // offset only, so the bytes unpacked are those of that descriptor.
    static bool sUnzipPayload(int fd, uint64_t size, const std::string& label, const std::string& destDir,
                              UpgradeBackup* backup = nullptr);
    // The sandbox mount points and system folders that a file record leaves out.
    static std::map<std::string, bool> sGetIgnoreFiles(const std::string& dataDir);
    // Appends `path` and, depth first, everything below it except ignored paths.
    static bool sGetFilesPath(const std::string& path, std::vector<std::string>& files,
                              const std::map<std::string, bool>& ignore);
    // "/userdisk/appdata/app_package/" (root-prefixed), created when missing.
    static std::string sPackageArchiveDir();
};
