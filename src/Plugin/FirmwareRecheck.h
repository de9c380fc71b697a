#pragma once
// Installed plugins checked again after the router's firmware changed.
//
// A plugin's fit (its SDK level, firmware type and firmware version) is
// checked when it is installed. A firmware upgrade, or a downgrade after a
// failed one, can leave an installed plugin that no longer fits; started
// anyway, it fails in ways nobody can explain. So the core records the
// firmware facts it last saw in its private folder (which no plugin can
// reach), and when they differ it checks every installed plugin with the
// install-time rules: a plugin that no longer fits is disabled through the
// normal status change, and why is recorded beside the facts; a plugin this
// check disabled is started again once it fits again. A plugin the operator
// disabled is never started by it.
#include <string>
#include <vector>

class PluginManager;

class FirmwareRecheck {
public:
    // What the compatibility checks read of the firmware.
    struct Facts {
        std::string romType;
        std::string romVersion;
        std::string sdkLevel;
        bool operator==(const Facts& other) const {
            return romType == other.romType && romVersion == other.romVersion && sdkLevel == other.sdkLevel;
        }
    };

    static Facts sCurrentFacts();
    // The facts recorded by the last check; false when none were recorded.
    static bool sRecordedFacts(Facts& facts);

    // When the facts differ from the recorded ones, checks every plugin
    // (sRun); the first start only records them. True when it checked. It
    // holds the installation lock meanwhile, waiting for it at most 10 s.
    static bool sRunIfFirmwareChanged(PluginManager& manager);
    // Checks every installed plugin now and records the facts; one line per
    // plugin ("<id>: <outcome>"), each also logged.
    static std::vector<std::string> sRun(PluginManager& manager);

    // Why the check disabled the plugin ("firmware too old (2522)"); empty
    // when it did not.
    static std::string sReason(const std::string& id);

    // The operator enabled or disabled the plugin: the check no longer
    // counts it as its own.
    static void sForget(const std::string& id);

    // The files in the core's private folder.
    static std::string sFactsPath();
    static std::string sDisabledPath();

private:
    // sRun with the installation lock held: the check and installations
    // never run at the same time, in any process.
    static std::vector<std::string> runLocked(PluginManager& manager);
};
