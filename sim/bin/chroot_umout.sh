#!/bin/sh
# Stand-in for the router's chroot unmount script: "chroot_umout.sh DIR".
# Logs its arguments; in sandbox mode (see sim-lib.sh) unmounts everything
# mounted at DIR or below it, lazily and innermost first, and removes the
# link tmp/sim-root/userdisk of mount_userdata.sh; then removes the
# mount-point folders proc, dev, cache_dir and userdata of DIR when they are
# empty (a folder with content is a plugin's own data and stays). Exits with
# the status in $DATACENTER_ROOT/sim/chroot_umout.sh/run.exit (0 by default).
case $0 in */*) . "${0%/*}/sim-lib.sh" ;; *) . ./sim-lib.sh ;; esac
sim_log "$0" "$@"
status=$(sim_exit_status chroot_umout.sh run 0)
[ "$status" = 0 ] || exit "$status"
dir=$(sim_plugin_dir "${1:-}") || exit $?
if [ "$(sim_mode)" = sandbox ] && [ -d "$dir" ] && [ ! -L "$dir" ]; then
    sim_unmount_below "$(cd "$dir" && pwd -P)"
fi
# The link that mount_userdata.sh adds for a program in the sandbox.
if [ -d "$dir/tmp" ] && [ ! -L "$dir/tmp" ] && [ -d "$dir/tmp/sim-root" ] && [ ! -L "$dir/tmp/sim-root" ]; then
    [ ! -L "$dir/tmp/sim-root/userdisk" ] || rm -f "$dir/tmp/sim-root/userdisk"
    rmdir "$dir/tmp/sim-root" 2>/dev/null
fi
for point in proc dev cache_dir userdata; do
    [ -d "$dir/$point" ] && [ ! -L "$dir/$point" ] && rmdir "$dir/$point" 2>/dev/null
done
exit 0
