#!/bin/sh
# Stand-in for the router's chroot unmount script: logs its arguments and
# exits with the status in $DATACENTER_ROOT/sim/chroot_umout.sh/run.exit (0 by default).
. "$(dirname "$0")/sim-lib.sh"
sim_log "$0" "$@"
exit "$(sim_exit_status chroot_umout.sh run 0)"
