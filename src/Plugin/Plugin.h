#pragma once
// Plugin objects: short-lived objects that start, stop and clean up one
// plugin. Packaged plugins are driven through the plugin controller command
// (BinaryPlugin); the router's own services are switched by fixed commands
// (BuildinPlugin and its kinds). Status-change objects pick the operation.
#include <boost/noncopyable.hpp>
#include <memory>
#include <string>

#include "common/ApiErrorCode.h"

class PluginManager;

// 0 for exit code 0, 4 for anything else. Exitcode2Apicode is the same function.
ApiErrorCode exitcode2Apicode(int exitCode);
ApiErrorCode Exitcode2Apicode(int exitCode);

// Runs `cmd` through the shell: 4 for an empty command, death by a signal or
// a shell that could not be started (the command did not run, so it must not
// read as success), `convert(exit code)` for a normal exit, 0 for any other
// outcome (a stopped child).
ApiErrorCode callSystem(const std::string& cmd, ApiErrorCode (*convert)(int));

class AbsPlugin : private boost::noncopyable {
public:
    AbsPlugin(PluginManager* manager, const std::string& id);
    virtual ~AbsPlugin();

    // Offers a configuration write to the kind; false declines (the manager
    // then writes the plugin's configuration file), true stores the code in *result.
    virtual bool setPluginConfigData(const std::string& id, const std::string& key, const std::string& value,
                                     ApiErrorCode* result) const;
    // True when the kind removed its own data, so the uninstaller skips the chroot clean-up.
    virtual bool removePluginData() const;
    virtual ApiErrorCode enableImpl() const;
    virtual ApiErrorCode disableImpl() const;
    virtual ApiErrorCode enableHook() const = 0;
    virtual ApiErrorCode disableHook() const = 0;
    // Ends the kind's processes; false when some could not be stopped.
    virtual bool killProcesses() const;

    // Enable: reset the pid entry, run the hook, store ENABLED. 0, the hook's
    // code, 2510 when the store refuses, 4 on an exception.
    ApiErrorCode enablePluginStatus() const;
    // Disable: run the hook, kill the processes, store DISABLED when the hook
    // succeeded and every process ended. 0, the hook's code, 2510 when the
    // store refuses, 4 on an exception or when a process could not be stopped.
    ApiErrorCode disablePluginStatus() const;

    const std::string& id() const { return id_; }
    PluginManager* manager() const { return manager_; }

private:
    PluginManager* manager_;
    std::string id_;
};

// A plugin installed from a package, started and stopped by "pluginControllor".
class BinaryPlugin : public AbsPlugin {
public:
    BinaryPlugin(PluginManager* manager, const std::string& id);
    ApiErrorCode enableHook() const override;
    ApiErrorCode disableHook() const override;
    // SIGTERM to every recorded process, up to five one-second waits, then
    // SIGKILL; then every other process of the plugin that /proc shows
    // (ProcessOwnership::sStopAll). False when one could not be stopped.
    bool killProcesses() const override;
};

// A router service switched on and off by two fixed commands.
class BuildinPlugin : public AbsPlugin {
public:
    BuildinPlugin(PluginManager* manager, const std::string& id, const std::string& enablecmd,
                  const std::string& disablecmd);
    ApiErrorCode enableHook() const override;
    ApiErrorCode disableHook() const override;

protected:
    std::string enablecmd_;
    std::string disablecmd_;
};

class SougouPreloadPlugin : public BuildinPlugin {
public:
    SougouPreloadPlugin(PluginManager* manager, const std::string& id);
    static std::string Id();
    bool removePluginData() const override;
};

class BaiduPreloadPlugin : public BuildinPlugin {
public:
    BaiduPreloadPlugin(PluginManager* manager, const std::string& id);
    static std::string Id();
    bool removePluginData() const override;
};

// The welcome portal page: needs a configured home page; applies the internet
// access duration through the portal filter instead of storing it.
class WelcomePlugin : public BuildinPlugin {
public:
    WelcomePlugin(PluginManager* manager, const std::string& id);
    static std::string Id();
    ApiErrorCode enableHook() const override;
    bool setPluginConfigData(const std::string& id, const std::string& key, const std::string& value,
                             ApiErrorCode* result) const override;
};

class AdBlockerPlugin : public BuildinPlugin {
public:
    AdBlockerPlugin(PluginManager* manager, const std::string& id);
    static std::string Id();
};

// File sharing. The TV app depends on it, so disabling it disables the TV app first.
class SambaPlugin : public BuildinPlugin {
public:
    SambaPlugin(PluginManager* manager, const std::string& id);
    static std::string Id();
    ApiErrorCode disableImpl() const override;
};

// The media server; disabling it deletes its media database.
class MinidlnaPlugin : public BuildinPlugin {
public:
    MinidlnaPlugin(PluginManager* manager, const std::string& id);
    static std::string Id();
    ApiErrorCode disableHook() const override;
    // The "db_dir" of the media server's configuration + "/files.db", or "".
    std::string getDbPath() const;

private:
    std::string configPath_;
};

// The TV app: needs file sharing, remembers a user's explicit disable.
class LumoappPlugin : public BuildinPlugin {
public:
    LumoappPlugin(PluginManager* manager, const std::string& id);
    static std::string Id();
    ApiErrorCode enableImpl() const override;
    ApiErrorCode disableImpl() const override;

    static std::string userDisableKey();
    static std::string userDisableTrueValue();
    static std::string userDisableFalseValue();
    static std::string firstConnectkey();
    static std::string firstConnectValue();
};

// A built-in id without a plugin class of its own.
class TGPPlugin {
public:
    static std::string Id();
};

std::string SambaEnableCmd();
std::string SambaDisableCmd();
std::string LumoAppEnableCmd();
std::string LumoAppDisableCmd();

// True for the welcome page's valid access durations, "0" and "120".
bool is_valid_duration(const std::string& value);

// A requested status picks one of these; it calls the plugin's operation.
class AbsChangeStatus {
public:
    virtual ~AbsChangeStatus() = default;
    // 4 for a null plugin, else accept_impl's result.
    ApiErrorCode accept(const std::unique_ptr<AbsPlugin>& plugin) const;
    virtual ApiErrorCode accept_impl(const std::unique_ptr<AbsPlugin>& plugin) const = 0;
};

class EnableStatus : public AbsChangeStatus {
public:
    ApiErrorCode accept_impl(const std::unique_ptr<AbsPlugin>& plugin) const override;
};

class DisableStatus : public AbsChangeStatus {
public:
    ApiErrorCode accept_impl(const std::unique_ptr<AbsPlugin>& plugin) const override;
};

// Any status other than enabled or disabled: refused with 3.
class InvalidActionStatus : public AbsChangeStatus {
public:
    ApiErrorCode accept_impl(const std::unique_ptr<AbsPlugin>& plugin) const override;
};
