#include "Plugin/FirmwareRecheck.h"

#include <glog/logging.h>

#include <fstream>
#include <map>
#include <sstream>

#include "DataBase/PluginStorageManager.h"
#include "Plugin/PluginManager.h"
#include "Plugin/installAction/InstallAction.h"
#include "Plugin/installAction/InstallJournal.h"
#include "common/PluginId.h"
#include "common/Singleton.h"
#include "storage/File.h"
#include "system/CommonUtils.h"
#include "system/ConfigInfo.h"
#include "system/Environment.h"
#include "system/RootPrefix.h"

namespace {

const char* const kFactsName = "firmware.facts";
const char* const kDisabledName = "recheck.disabled";
// Both files are a few lines; anything longer was not written by us.
const std::streamsize kMaxFileBytes = 64 * 1024;
const char* const kFits = "fits";

// The plugins this check disabled, with the code of the check they failed.
typedef std::map<std::string, int> DisabledMap;

std::string readSmallFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string text(static_cast<size_t>(kMaxFileBytes), '\0');
    in.read(&text[0], kMaxFileBytes);
    text.resize(static_cast<size_t>(in.gcount()));
    return text;
}

DisabledMap readDisabled() {
    DisabledMap disabled;
    std::istringstream lines(readSmallFile(FirmwareRecheck::sDisabledPath()));
    std::string id;
    int code = 0;
    while (lines >> id >> code) {
        if (datacenter::isSafePluginId(id)) {
            disabled[id] = code;
        }
    }
    return disabled;
}

bool writeDisabled(const DisabledMap& disabled) {
    std::string text;
    for (const auto& entry : disabled) {
        text += entry.first + " " + std::to_string(entry.second) + "\n";
    }
    return datacenter::File::sWriteAtomically(FirmwareRecheck::sDisabledPath(), text, 0600);
}

// How long a start waits for another process's check or installation to
// finish before it leaves the check to the next start.
// DATACENTER_RECHECK_LOCK_WAIT_MS changes it (tests).
const long kLockWaitMilliseconds = 10000;

// The installer's lock, which the check takes too: two starts after a
// firmware change must not both check (one would lose the other's reasons),
// nor check while an installation changes a plugin. False when another
// process held it for the whole wait.
bool takeLock(InstallJournal& lock) {
    const long bound =
        datacenter::Environment::sGetMilliseconds("DATACENTER_RECHECK_LOCK_WAIT_MS", kLockWaitMilliseconds);
    if (!lock.lockWithin(bound)) {
        LOG(WARNING) << "firmware recheck: another process holds the installation lock; the check waits for the "
                        "next start";
        return false;
    }
    return true;
}

bool writeFacts(const FirmwareRecheck::Facts& facts) {
    return datacenter::File::sWriteAtomically(
        FirmwareRecheck::sFactsPath(),
        "rom_type " + facts.romType + "\nrom_version " + facts.romVersion + "\nsdk_level " + facts.sdkLevel + "\n",
        0600);
}

std::string describe(int code) {
    switch (code) {
        case API_SDK_LEVEL_TOO_LOW:
            return "SDK level too low (2513)";
        case API_FIRMWARE_TYPE_UNSUPPORTED:
            return "firmware type not supported (2521)";
        case API_FIRMWARE_TOO_OLD:
            return "firmware too old (2522)";
        case API_PLUGIN_ID_MISMATCH:
            return "plugin id does not match its record (2527)";
        default:
            return "code " + std::to_string(code);
    }
}

// One plugin: its outcome in words; `disabled` is updated.
std::string recheckOne(PluginManager& manager, const std::string& id, datacenter::PluginStatus status,
                       DisabledMap& disabled) {
    // The store's record was written from the verified package; the
    // plugin's own copy of its manifest is its to edit.
    const std::string manifest = Singleton<PluginStorageManager>::instance()->getManifestFilePath(id);
    const ApiErrorCode code = InstallAction::sCheckCompatibility(id, manifest);
    const bool ours = disabled.count(id) != 0;
    if (code != API_SUCCESS) {
        if (ours) {
            disabled[id] = code;
            // A check cut short between recording the reason and disabling
            // the plugin is finished here.
            if (status != datacenter::DISABLED && manager.changePluginStatus(id, datacenter::DISABLED) == API_SUCCESS) {
                return "disabled: " + describe(code);
            }
            return "still does not fit: " + describe(code) + "; stays disabled";
        }
        if (status == datacenter::DISABLED) {
            return "does not fit: " + describe(code) + "; already disabled by the operator";
        }
        // The reason is on disk before the plugin is disabled: after a power
        // cut in between, a plugin disabled without it would never start again.
        disabled[id] = code;
        if (!writeDisabled(disabled)) {
            disabled.erase(id);
            return "does not fit: " + describe(code) + "; its reason cannot be recorded, so it stays as it is";
        }
        const ApiErrorCode result = manager.changePluginStatus(id, datacenter::DISABLED);
        if (result != API_SUCCESS) {
            disabled.erase(id);
            writeDisabled(disabled);
            return "does not fit: " + describe(code) + "; disabling it failed with code " + std::to_string(result);
        }
        return "disabled: " + describe(code);
    }
    if (!ours) {
        return kFits;
    }
    disabled.erase(id);
    if (status != datacenter::DISABLED) {
        return "fits again; the operator had already started it";
    }
    const ApiErrorCode result = manager.changePluginStatus(id, datacenter::ENABLED);
    return result == API_SUCCESS || result == API_WELCOME_NO_HOMEPAGE
               ? std::string("fits again: started")
               : "fits again; starting it failed with code " + std::to_string(result);
}

}  // namespace

std::string FirmwareRecheck::sFactsPath() {
    return InstallJournal::sPrivateDir() + kFactsName;
}

std::string FirmwareRecheck::sDisabledPath() {
    return InstallJournal::sPrivateDir() + kDisabledName;
}

FirmwareRecheck::Facts FirmwareRecheck::sCurrentFacts() {
    Facts facts;
    facts.romType = InstallAction::sRomType;
    facts.romVersion = CommonUtils::sGetRomVersion();
    const std::string levelFile = datacenter::RootPrefix::sPath(PluginManager::sSdkLevelFilePath);
    if (datacenter::File::sExists(levelFile)) {
        facts.sdkLevel = datacenter::ConfigInfo::sGetInstance()->getConfigFromFile(levelFile, "sdk_level");
    }
    return facts;
}

bool FirmwareRecheck::sRecordedFacts(Facts& facts) {
    std::istringstream lines(readSmallFile(sFactsPath()));
    std::map<std::string, std::string> values;
    for (std::string line; std::getline(lines, line);) {
        const std::string::size_type space = line.find(' ');
        if (space != std::string::npos) {
            values[line.substr(0, space)] = line.substr(space + 1);
        }
    }
    if (values.count("rom_type") == 0 || values.count("rom_version") == 0 || values.count("sdk_level") == 0) {
        return false;
    }
    facts.romType = values["rom_type"];
    facts.romVersion = values["rom_version"];
    facts.sdkLevel = values["sdk_level"];
    return true;
}

bool FirmwareRecheck::sRunIfFirmwareChanged(PluginManager& manager) {
    const Facts current = sCurrentFacts();
    Facts recorded;
    if (sRecordedFacts(recorded) && recorded == current) {
        return false;
    }
    InstallJournal lock;
    if (!InstallJournal::sEnsurePrivateDir() || !takeLock(lock)) {
        return false;
    }
    // Another start may have checked while this one waited.
    const bool known = sRecordedFacts(recorded);
    if (known && recorded == current) {
        return false;
    }
    if (!known) {
        // The first start after this check came in: the plugins were checked
        // against this firmware when they were installed.
        if (InstallJournal::sEnsurePrivateDir() && !writeFacts(current)) {
            LOG(ERROR) << "firmware recheck: cannot record the firmware facts in " << sFactsPath();
        }
        return false;
    }
    LOG(WARNING) << "firmware changed (version " << recorded.romVersion << " -> " << current.romVersion
                 << ", sdk level " << recorded.sdkLevel << " -> " << current.sdkLevel
                 << "): installed plugins are checked again";
    runLocked(manager);
    return true;
}

std::vector<std::string> FirmwareRecheck::sRun(PluginManager& manager) {
    InstallJournal lock;
    if (!InstallJournal::sEnsurePrivateDir()) {
        const std::string line = "the core's private folder cannot be used: nothing was checked";
        LOG(ERROR) << "firmware recheck: " << line;
        return {line};
    }
    if (!takeLock(lock)) {
        return {"another process holds the installation lock: nothing was checked"};
    }
    return runLocked(manager);
}

std::vector<std::string> FirmwareRecheck::runLocked(PluginManager& manager) {
    std::vector<std::string> lines;
    DisabledMap disabled = readDisabled();
    for (const auto& entry : Singleton<PluginStorageManager>::instance()->getListablePluginInfos()) {
        if (!datacenter::isSafePluginId(entry.first)) {
            continue;
        }
        const std::string outcome = recheckOne(manager, entry.first, entry.second.status, disabled);
        lines.push_back(entry.first + ": " + outcome);
        // A plugin that fits is news only in the system log.
        LOG_IF(INFO, outcome == kFits) << "firmware recheck: " << lines.back();
        LOG_IF(WARNING, outcome != kFits) << "firmware recheck: " << lines.back();
    }
    // Plugins uninstalled since keep no reason.
    const auto installed = Singleton<PluginStorageManager>::instance()->getListablePluginInfos();
    for (auto it = disabled.begin(); it != disabled.end();) {
        it = installed.count(it->first) ? std::next(it) : disabled.erase(it);
    }
    if (!writeDisabled(disabled) || !writeFacts(sCurrentFacts())) {
        LOG(ERROR) << "firmware recheck: cannot record the outcome in " << InstallJournal::sPrivateDir();
    }
    return lines;
}

std::string FirmwareRecheck::sReason(const std::string& id) {
    const DisabledMap disabled = readDisabled();
    const auto found = disabled.find(id);
    return found == disabled.end() ? std::string() : "disabled by the firmware check: " + describe(found->second);
}

void FirmwareRecheck::sForget(const std::string& id) {
    InstallJournal lock;
    if (!InstallJournal::sEnsurePrivateDir() || !takeLock(lock)) {
        return;
    }
    DisabledMap disabled = readDisabled();
    if (disabled.erase(id) != 0 && !writeDisabled(disabled)) {
        LOG(ERROR) << "firmware recheck: cannot record the outcome in " << InstallJournal::sPrivateDir();
    }
}
