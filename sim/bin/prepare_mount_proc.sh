#!/bin/sh
# Stand-in for the router's sandbox script "prepare_mount_proc.sh DIR": logs
# its arguments and creates the mount point DIR/proc (see sim_sandbox_script
# in sim-lib.sh). In sandbox mode it binds the host's /proc there read-only.
case $0 in */*) . "${0%/*}/sim-lib.sh" ;; *) . ./sim-lib.sh ;; esac
sim_log "$0" "$@"
sim_sandbox_mount() {
    sim_bind /proc "$1" proc ro
}
sim_sandbox_script prepare_mount_proc.sh "${1:-}" proc
