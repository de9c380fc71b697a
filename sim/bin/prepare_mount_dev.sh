#!/bin/sh
# Stand-in for the router's sandbox script: "prepare_mount_dev.sh DIR".
# Logs its arguments and creates the mount point DIR/dev; exits with the status in
# $DATACENTER_ROOT/sim/prepare_mount_dev.sh/run.exit (0 by default), printing
# $DATACENTER_ROOT/sim/prepare_mount_dev.sh/output when that file exists.
. "$(dirname "$0")/sim-lib.sh"
sim_log "$0" "$@"
status=$(sim_exit_status prepare_mount_dev.sh run 0)
[ "$status" = 0 ] || exit "$status"
dir=$(sim_plugin_dir "${1:-}") || exit $?
mkdir -p "$dir/dev"
sim_answer prepare_mount_dev.sh output || true
exit 0
