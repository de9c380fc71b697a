#!/bin/sh
# Stand-in for the router's sandbox script "mount_userdata.sh DIR USERDISK":
# logs its arguments and creates the mount point DIR/userdata (see
# sim_sandbox_script in sim-lib.sh). In sandbox mode it binds the user disk
# USERDISK (below the simulated root) there, writable, and adds the link
# DIR/tmp/sim-root/userdisk -> ../../userdata through which a program in the
# sandbox, whose DATACENTER_ROOT is /tmp/sim-root, reaches the user disk by
# the core's own paths. The core's own state on the disk ("appdata": every
# plugin's tree, the manifest store, the pid file) is hidden under an empty
# read-only file system in that bind: a plugin that may read the user's files
# sees the user's files, not other plugins' trees.
case $0 in */*) . "${0%/*}/sim-lib.sh" ;; *) . ./sim-lib.sh ;; esac
sim_log "$0" "$@"
userdisk=${2:-}
sim_sandbox_mount() {
    disk=$(sim_below_root "$userdisk") || return 1
    sim_bind "$disk" "$1" userdata rw || return 1
    mask=$(sim_mount_point "$1" userdata/appdata) || return 1
    sim_is_mounted "$mask" || mount -t tmpfs -o ro,mode=0555,size=4k sim-appdata-mask "$mask" || return 1
    link=$(sim_mount_point "$1" tmp/sim-root) || return 1
    [ -L "$link/userdisk" ] || ln -s ../../userdata "$link/userdisk"
}
sim_sandbox_script mount_userdata.sh "${1:-}" userdata
