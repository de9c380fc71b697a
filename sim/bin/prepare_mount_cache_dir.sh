#!/bin/sh
# Stand-in for the router's sandbox script "prepare_mount_cache_dir.sh DIR
# CACHE_DIR": logs its arguments and creates the mount point DIR/cache_dir
# (see sim_sandbox_script in sim-lib.sh). In sandbox mode it binds CACHE_DIR
# (below the simulated root, created when missing) there, writable.
case $0 in */*) . "${0%/*}/sim-lib.sh" ;; *) . ./sim-lib.sh ;; esac
sim_log "$0" "$@"
cache=${2:-}
sim_sandbox_mount() {
    cache_dir=$(sim_plugin_dir "$cache") || return 1
    [ -L "$cache_dir" ] || mkdir -p "$cache_dir"
    cache_dir=$(sim_below_root "$cache_dir") || return 1
    sim_bind "$cache_dir" "$1" cache_dir rw
}
sim_sandbox_script prepare_mount_cache_dir.sh "${1:-}" cache_dir
