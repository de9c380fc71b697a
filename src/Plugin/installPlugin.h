#pragma once
// The command-line installer: `installplugin -f qpkFile [-k] [-u]`.
// Returns the process exit status: 1 only for an unknown option, 0 otherwise
// (an installation failure is reported by the printed code).
int installPluginMain(int argc, char** argv);
