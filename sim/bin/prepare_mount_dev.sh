#!/bin/sh
# Stand-in for the router's sandbox script "prepare_mount_dev.sh DIR": logs
# its arguments and creates the mount point DIR/dev (see sim_sandbox_script
# in sim-lib.sh). In sandbox mode it binds the host's /dev there read-only
# (its device nodes stay usable; no node can be added or removed).
case $0 in */*) . "${0%/*}/sim-lib.sh" ;; *) . ./sim-lib.sh ;; esac
sim_log "$0" "$@"
sim_sandbox_mount() {
    sim_bind /dev "$1" dev ro
}
sim_sandbox_script prepare_mount_dev.sh "${1:-}" dev
