#!/bin/sh
# Stand-in for the router's sandbox script "prepare_chroot.sh DIR PLUGIN_ROOT": logs its
# arguments and creates the sandbox folders bin, lib, etc, usr and tmp in DIR (see sim_sandbox_script in sim-lib.sh).
. "$(dirname "$0")/sim-lib.sh"
sim_log "$0" "$@"
sim_sandbox_script prepare_chroot.sh "${1:-}" bin lib etc usr tmp
