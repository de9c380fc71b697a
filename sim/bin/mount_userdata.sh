#!/bin/sh
# Stand-in for the router's sandbox script "mount_userdata.sh DIR USERDISK": logs its
# arguments and creates the mount point DIR/userdata (see sim_sandbox_script in sim-lib.sh).
. "$(dirname "$0")/sim-lib.sh"
sim_log "$0" "$@"
sim_sandbox_script mount_userdata.sh "${1:-}" userdata
