#!/bin/sh
# Stand-in for the router's "run inside the sandbox" script:
# "chroot_run_script.sh DIR COMMAND..." (a shell, script or binary and its
# arguments). Nothing is run: a chroot needs root. Logs its arguments, prints
# $DATACENTER_ROOT/sim/chroot_run_script.sh/output when that file exists and
# exits with the status in .../run.exit (0 by default).
. "$(dirname "$0")/sim-lib.sh"
sim_log "$0" "$@"
sim_plugin_dir "${1:-}" >/dev/null || exit $?
sim_answer chroot_run_script.sh output || true
exit "$(sim_exit_status chroot_run_script.sh run 0)"
