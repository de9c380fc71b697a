#!/bin/sh
# Stand-in for the router's sandbox script "mount_userdata.sh DIR USERDISK":
# logs its arguments and creates the mount point DIR/userdata (see
# sim_sandbox_script in sim-lib.sh). In sandbox mode it binds the user disk
# USERDISK (below the simulated root) there, writable, and adds the link
# DIR/tmp/sim-root/userdisk -> ../../userdata through which a program in the
# sandbox, whose DATACENTER_ROOT is /tmp/sim-root, reaches the user disk by
# the core's own paths.
case $0 in */*) . "${0%/*}/sim-lib.sh" ;; *) . ./sim-lib.sh ;; esac
sim_log "$0" "$@"
userdisk=${2:-}
sim_sandbox_mount() {
    disk=$(sim_below_root "$userdisk") || return 1
    sim_bind "$disk" "$1" userdata rw || return 1
    link=$(sim_mount_point "$1" tmp/sim-root) || return 1
    [ -L "$link/userdisk" ] || ln -s ../../userdata "$link/userdisk"
}
sim_sandbox_script mount_userdata.sh "${1:-}" userdata
