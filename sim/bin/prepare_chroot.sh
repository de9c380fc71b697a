#!/bin/sh
# Stand-in for the router's sandbox script: "prepare_chroot.sh DIR PLUGIN_ROOT".
# Logs its arguments and creates the sandbox folders bin, lib, etc, usr and tmp in DIR; exits with the status in
# $DATACENTER_ROOT/sim/prepare_chroot.sh/run.exit (0 by default), printing
# $DATACENTER_ROOT/sim/prepare_chroot.sh/output when that file exists.
. "$(dirname "$0")/sim-lib.sh"
sim_log "$0" "$@"
status=$(sim_exit_status prepare_chroot.sh run 0)
[ "$status" = 0 ] || exit "$status"
dir=$(sim_plugin_dir "${1:-}") || exit $?
mkdir -p "$dir/bin" "$dir/lib" "$dir/etc" "$dir/usr" "$dir/tmp"
sim_answer prepare_chroot.sh output || true
exit 0
