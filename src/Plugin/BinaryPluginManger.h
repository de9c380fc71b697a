#pragma once
// Preparing and taking down a plugin's chroot sandbox: the platform's scripts
// build the sandbox in the plugin's data directory and mount into it what
// the plugin's capabilities allow. Commands are run by name through the
// shell's search path; a script that starts and then fails is not detected,
// its output is handed back.
#include <string>

#include "common/ApiErrorCode.h"

namespace datacenter {

class BinaryPluginManger {
public:
    static const std::string sPrepareChrootScriptPath;  // "prepare_chroot.sh"
    static const std::string sMountUserdataScriptPath;  // "mount_userdata.sh"
    static const std::string sPrepareSupervisordPath;   // "prepare_supervisord.sh"
    static const std::string sPrepareProcPath;          // "prepare_mount_proc.sh"
    static const std::string sPrepareDevPath;           // "prepare_mount_dev.sh"
    static const std::string sPrepareCacheDirPath;      // "prepare_mount_cache_dir.sh"
    static const std::string sCacheDirPath;             // "/userdisk/data/.cache_dir"

    // Builds the sandbox, then mounts what each recorded capability asks for
    // (a failed mount does not stop the others). 0, or 2502 for an empty or
    // unsafe id or when the sandbox script cannot be started.
    static ApiErrorCode prepareChroot(const std::string& id, std::string& output);
    // Runs the mount script of one capability in `dir`: 0, or 2502 when it
    // cannot be started. Rights-only and unknown names need nothing: 0.
    static ApiErrorCode parseCapability(const std::string& capability, const std::string& dir);
    // Unmounts what each recorded capability mounted. Always 0 (an unsafe id does nothing).
    static ApiErrorCode removePluginCapbility(const std::string& id);
    // Unmounts one capability's mount in `dir`; fire and forget: always 0.
    static ApiErrorCode removeCapability(const std::string& capability, const std::string& dir);
    // Action 2 unmounts `mountPoint` below `dir` (lazy, forced); others do nothing. Always 0.
    static ApiErrorCode mountHotplugDevice(const std::string& dir, int action, const std::string& mountPoint);
};

}  // namespace datacenter
