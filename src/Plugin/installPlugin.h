#pragma once
// The command-line installer: `installplugin -f qpkFile [-k] [-u]`.
#include <string>

struct InstallCommand {
    std::string path;   // the last -f given; empty without -f
    bool keep = false;  // -k, unless -u was given as well
};

// Parses the options with getopt ("f:uk"). False on an unknown option.
bool parseInstallCommand(int argc, char** argv, InstallCommand& command);

// Runs the installer. Returns the process exit status: 1 only for an unknown
// option, 0 otherwise (an installation failure is reported by the printed code).
int installPluginMain(int argc, char** argv);
