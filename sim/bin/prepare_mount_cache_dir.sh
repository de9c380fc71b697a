#!/bin/sh
# Stand-in for the router's sandbox script "prepare_mount_cache_dir.sh DIR CACHE_DIR": logs its
# arguments and creates the mount point DIR/cache_dir (see sim_sandbox_script in sim-lib.sh).
. "$(dirname "$0")/sim-lib.sh"
sim_log "$0" "$@"
sim_sandbox_script prepare_mount_cache_dir.sh "${1:-}" cache_dir
