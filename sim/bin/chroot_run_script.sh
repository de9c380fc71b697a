#!/bin/sh
# Stand-in for the router's "run inside the sandbox" script:
# "chroot_run_script.sh DIR COMMAND..." (a shell, script or binary and its
# arguments). Logs its arguments, prints
# $DATACENTER_ROOT/sim/chroot_run_script.sh/output when that file exists and
# exits with the status in .../run.exit (0 by default). In logging mode
# nothing is run; in sandbox mode (see sim-lib.sh) COMMAND runs chrooted in
# DIR (sim_run_chrooted) and the script exits with its status.
case $0 in */*) . "${0%/*}/sim-lib.sh" ;; *) . ./sim-lib.sh ;; esac
sim_log "$0" "$@"
dir=$(sim_plugin_dir "${1:-}") || exit $?
sim_answer chroot_run_script.sh output || true
status=$(sim_exit_status chroot_run_script.sh run 0)
[ "$status" = 0 ] || exit "$status"
if [ "$(sim_mode)" = sandbox ] && [ $# -gt 1 ]; then
    dir=$(sim_below_root "$dir") || exit $?
    shift
    sim_run_chrooted "$(cd "$dir" && pwd -P)" "$@"
fi
exit 0
