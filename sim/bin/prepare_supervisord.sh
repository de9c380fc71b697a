#!/bin/sh
# Stand-in for the router's sandbox script "prepare_supervisord.sh DIR": logs its
# arguments and creates nothing (it mounts nothing) (see sim_sandbox_script in sim-lib.sh).
case $0 in */*) . "${0%/*}/sim-lib.sh" ;; *) . ./sim-lib.sh ;; esac
sim_log "$0" "$@"
sim_sandbox_script prepare_supervisord.sh "${1:-}"
