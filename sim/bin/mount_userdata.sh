#!/bin/sh
# Stand-in for the router's sandbox script: "mount_userdata.sh DIR USERDISK".
# Logs its arguments and creates the mount point DIR/userdata; exits with the status in
# $DATACENTER_ROOT/sim/mount_userdata.sh/run.exit (0 by default), printing
# $DATACENTER_ROOT/sim/mount_userdata.sh/output when that file exists.
. "$(dirname "$0")/sim-lib.sh"
sim_log "$0" "$@"
status=$(sim_exit_status mount_userdata.sh run 0)
[ "$status" = 0 ] || exit "$status"
dir=$(sim_plugin_dir "${1:-}") || exit $?
mkdir -p "$dir/userdata"
sim_answer mount_userdata.sh output || true
exit 0
