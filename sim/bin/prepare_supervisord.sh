#!/bin/sh
# Stand-in for the router's sandbox script: "prepare_supervisord.sh DIR".
# Logs its arguments and creates nothing (no mount point); exits with the status in
# $DATACENTER_ROOT/sim/prepare_supervisord.sh/run.exit (0 by default), printing
# $DATACENTER_ROOT/sim/prepare_supervisord.sh/output when that file exists.
. "$(dirname "$0")/sim-lib.sh"
sim_log "$0" "$@"
status=$(sim_exit_status prepare_supervisord.sh run 0)
[ "$status" = 0 ] || exit "$status"
dir=$(sim_plugin_dir "${1:-}") || exit $?
sim_answer prepare_supervisord.sh output || true
exit 0
