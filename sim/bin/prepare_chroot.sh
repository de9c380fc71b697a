#!/bin/sh
# Stand-in for the router's sandbox script "prepare_chroot.sh DIR PLUGIN_ROOT":
# logs its arguments and creates the sandbox folders bin, lib, etc, usr and
# tmp in DIR (see sim_sandbox_script in sim-lib.sh). In sandbox mode it also
# binds the host's library folder read-only at DIR/lib, so that a dynamically
# linked program runs chrooted there.
case $0 in */*) . "${0%/*}/sim-lib.sh" ;; *) . ./sim-lib.sh ;; esac
sim_log "$0" "$@"
sim_sandbox_mount() {
    sim_bind_host_libraries "$1"
}
sim_sandbox_script prepare_chroot.sh "${1:-}" bin lib etc usr tmp
