# Shared helpers of the platform command stand-ins. Source it with
#   case $0 in */*) . "${0%/*}/sim-lib.sh" ;; *) . ./sim-lib.sh ;; esac
# Every stand-in logs its argv with sim_log "$0" "$@" and answers from files
# that a test writes below $DATACENTER_ROOT/sim/ (see sim/README.md).

# The simulated root; a stand-in never works outside it, and never on the
# host's own root ("/", "//", "/." ...): that would let it write the host's
# /tmp, /userdisk or, in sandbox mode, mount over the host's folders.
sim_root() {
    # Checked once per stand-in: command substitutions inherit the answer.
    if [ -n "${_sim_root_checked:-}" ] && [ "$_sim_root_checked" = "${DATACENTER_ROOT:-}" ]; then
        printf '%s\n' "$_sim_root_checked"
        return 0
    fi
    if [ -z "${DATACENTER_ROOT:-}" ]; then
        echo "$(basename "$0"): DATACENTER_ROOT is not set" >&2
        exit 127
    fi
    case "$DATACENTER_ROOT" in
        /*) ;;
        *)
            echo "$(basename "$0"): DATACENTER_ROOT '$DATACENTER_ROOT' is not an absolute path" >&2
            exit 127
            ;;
    esac
    # Every spelling of "/" ("//", "/.", "/..") is made of these two
    # characters; a link to it resolves to "/".
    _sim_spelling=no
    case "$DATACENTER_ROOT" in *[!/.]*) ;; *) _sim_spelling=root ;; esac
    if [ "$_sim_spelling" = root ] || [ "$(cd "$DATACENTER_ROOT" 2>/dev/null && pwd -P)" = "/" ]; then
        echo "$(basename "$0"): refusing DATACENTER_ROOT '$DATACENTER_ROOT': it is the host's root" >&2
        exit 127
    fi
    printf '%s\n' "$DATACENTER_ROOT"
}

# Checks the root in this shell itself, so that later checks are free.
sim_check_root() {
    sim_root >/dev/null || exit 127
    _sim_root_checked=$DATACENTER_ROOT
}

# Appends one line "name arg1 arg2 ..." to $DATACENTER_ROOT/tmp/sim-commands.log.
sim_log() {
    _sim_name=${1##*/}
    shift
    sim_check_root
    [ -d "$DATACENTER_ROOT/tmp" ] || mkdir -p "$DATACENTER_ROOT/tmp"
    _sim_line=$_sim_name
    for _sim_arg in "$@"; do
        _sim_line="$_sim_line $_sim_arg"
    done
    printf '%s\n' "$_sim_line" >>"$DATACENTER_ROOT/tmp/sim-commands.log"
}

# Path of the answer file $DATACENTER_ROOT/sim/<command>/<name>; refuses
# names that could leave that directory.
sim_data_path() {
    case "$2" in
        "" | */* | . | ..)
            echo "$(basename "$0"): bad name '$2'" >&2
            exit 2
            ;;
    esac
    printf '%s/sim/%s/%s\n' "$(sim_root)" "$1" "$2"
}

# Prints the answer file of <command> <name> when it exists; returns 1 when not.
sim_answer() {
    _sim_file=$(sim_data_path "$1" "$2") || exit $?
    [ -f "$_sim_file" ] || return 1
    cat "$_sim_file"
}

# The exit status a test scripted for <command> <name> in "<name>.exit", or $3.
sim_exit_status() {
    _sim_file=$(sim_data_path "$1" "$2.exit") || exit $?
    if [ -f "$_sim_file" ]; then
        head -n 1 "$_sim_file"
    else
        printf '%s\n' "$3"
    fi
}

# Prints the plugin directory argument $1 when it lies below the simulated
# root without climbing out of it; refuses anything else (exit 2).
sim_plugin_dir() {
    _sim_root=$(sim_root) || exit 127
    case "$1" in
        "$_sim_root"/*) ;;
        *)
            echo "$(basename "$0"): '$1' is not below $_sim_root" >&2
            exit 2
            ;;
    esac
    case "/$1/" in
        */../* | */./*)
            echo "$(basename "$0"): '$1' climbs out" >&2
            exit 2
            ;;
    esac
    printf '%s\n' "${1%/}"
}

# The body of the sandbox script stand-ins: "sim_sandbox_script NAME DIR
# FOLDER...". Exits with the status scripted in sim/NAME/run.exit before
# touching anything, checks DIR with sim_plugin_dir, creates each FOLDER
# (the script's mount points) in it, and in sandbox mode (see below) calls
# the script's own sim_sandbox_mount with the checked DIR. Prints
# sim/NAME/output when present.
sim_sandbox_script() {
    _sim_name=$1
    _sim_dir_arg=$2
    shift 2
    _sim_status=$(sim_exit_status "$_sim_name" run 0)
    [ "$_sim_status" = 0 ] || exit "$_sim_status"
    _sim_dir=$(sim_plugin_dir "$_sim_dir_arg") || exit $?
    for _sim_folder in "$@"; do
        mkdir -p "$_sim_dir/$_sim_folder"
    done
    if [ "$(sim_mode)" = sandbox ]; then
        _sim_dir=$(sim_below_root "$_sim_dir") || exit $?
        sim_sandbox_mount "$(cd "$_sim_dir" && pwd -P)" || {
            echo "$_sim_name: mounting in $_sim_dir failed" >&2
            exit 1
        }
    fi
    sim_answer "$_sim_name" output || true
    exit 0
}

# What a sandbox script mounts in sandbox mode; scripts that mount replace it.
sim_sandbox_mount() {
    :
}

# --- Sandbox mode -----------------------------------------------------------
# The chroot stand-ins make real mounts only inside a private mount namespace
# made for them by sim/sandbox-shell, which records that namespace in
# DC_SIM_MNT_NS and the one it came from in DC_SIM_OUTER_NS. Anywhere else
# (not root, not Linux, no namespace, a namespace whose mounts still
# propagate) they only log and create folders: "logging" mode.

# Prints why mounts are not possible here, or nothing when they are.
sim_sandbox_refusal() {
    # sim/sandbox-shell sets this only where it made a namespace, which takes Linux and root.
    [ -n "${DC_SIM_MNT_NS:-}" ] || { echo "not started by sim/sandbox-shell"; return; }
    [ "$(uname -s)" = Linux ] || { echo "not Linux"; return; }
    [ "$(id -u)" = 0 ] || { echo "not root"; return; }
    _sim_ns=$(readlink /proc/self/ns/mnt 2>/dev/null)
    [ -n "$_sim_ns" ] && [ "$_sim_ns" = "$DC_SIM_MNT_NS" ] ||
        { echo "not in the mount namespace sim/sandbox-shell made"; return; }
    [ "$_sim_ns" != "${DC_SIM_OUTER_NS:-}" ] || { echo "sim/sandbox-shell made no new mount namespace"; return; }
    [ "$_sim_ns" != "$(readlink /proc/1/ns/mnt 2>/dev/null)" ] || { echo "in the mount namespace of process 1"; return; }
    # A shared mount would carry our mounts back to its peers outside.
    awk '{ for (i = 7; $i != "-"; i++) if ($i ~ /^shared:/) found = 1 } END { exit !found }' \
        /proc/self/mountinfo && { echo "mounts of this namespace still propagate (shared)"; return; }
    # Mount points are found again in /proc/self/mountinfo, which escapes blanks.
    case "$(sim_root)" in
        *[!A-Za-z0-9._/-]*) echo "DATACENTER_ROOT has characters other than A-Za-z0-9._/-"; return ;;
    esac
}

# Prints "sandbox" or "logging". The first stand-in to decide for a root
# records the mode in tmp/sim-mode and says so once on standard error.
sim_mode() {
    if [ -z "${_sim_mode_cached:-}" ]; then
        _sim_reason=$(sim_sandbox_refusal)
        if [ -z "$_sim_reason" ]; then
            _sim_mode_cached=sandbox
            _sim_note="sandbox mode: real mounts in the private mount namespace $DC_SIM_MNT_NS"
        else
            _sim_mode_cached=logging
            _sim_note="logging mode ($_sim_reason): the sandbox scripts log and make folders, nothing is mounted"
        fi
        _sim_root=$(sim_root) || exit 127
        mkdir -p "$_sim_root/tmp"
        if (set -C && printf '%s\n' "$_sim_note" >"$_sim_root/tmp/sim-mode") 2>/dev/null; then
            echo "sim: $_sim_note" >&2
        fi
    fi
    printf '%s\n' "$_sim_mode_cached"
}

# Fails unless this process may mount (checked again before every mount).
sim_require_sandbox() {
    [ -z "$(sim_sandbox_refusal)" ] || {
        echo "$(basename "$0"): refusing to mount outside a private mount namespace" >&2
        exit 3
    }
}

# Creates DIR/REL (REL relative, without "..") folder by folder, refusing a
# link anywhere below DIR, so that a mount never lands outside the sandbox.
# Prints the path.
sim_mount_point() {
    case "/$2/" in */../* | */./* | //*) echo "$(basename "$0"): bad mount point '$2'" >&2; exit 2 ;; esac
    _sim_at=$1
    _sim_rest=$2
    while [ -n "$_sim_rest" ]; do
        _sim_part=${_sim_rest%%/*}
        [ "$_sim_part" = "$_sim_rest" ] && _sim_rest="" || _sim_rest=${_sim_rest#*/}
        [ -n "$_sim_part" ] || continue
        _sim_at=$_sim_at/$_sim_part
        if [ -L "$_sim_at" ]; then
            echo "$(basename "$0"): '$_sim_at' is a link; nothing is mounted there" >&2
            exit 2
        fi
        [ -d "$_sim_at" ] || mkdir "$_sim_at" || exit 1
    done
    printf '%s\n' "$_sim_at"
}

# True when PATH is a mount point of this namespace.
sim_is_mounted() {
    awk -v p="$1" '$5 == p { found = 1 } END { exit !found }' /proc/self/mountinfo
}

# "sim_bind SOURCE DIR REL rw|ro": binds SOURCE at DIR/REL (not recursive).
# A read-only bind is remounted read-only at once and taken away again when
# that fails, so a writable bind of a host folder never stays.
sim_bind() {
    sim_require_sandbox
    _sim_target=$(sim_mount_point "$2" "$3") || exit $?
    sim_is_mounted "$_sim_target" && return 0
    mount --bind "$1" "$_sim_target" || return 1
    if [ "$4" = ro ] && ! mount -o remount,bind,ro "$_sim_target"; then
        umount -l "$_sim_target"
        return 1
    fi
}

# A folder below the simulated root, given as an argument of a sandbox script.
sim_below_root() {
    _sim_dir=$(sim_plugin_dir "$1") || exit $?
    [ -d "$_sim_dir" ] && [ ! -L "$_sim_dir" ] || { echo "$(basename "$0"): '$1' is not a folder" >&2; exit 2; }
    printf '%s\n' "$_sim_dir"
}

# Unmounts everything mounted at DIR or below it, innermost first, lazily so
# that a busy sandbox (a plugin still running) is detached all the same.
sim_unmount_below() {
    awk -v d="$1" '$5 == d || index($5, d "/") == 1 { print $5 }' /proc/self/mountinfo | sort -r |
        while IFS= read -r _sim_point; do
            umount -l "$_sim_point" 2>/dev/null || true
        done
}

# The host's library folder (/lib, the folder its dynamic loader and C
# library live in) bound read-only at DIR/lib, unless the plugin filled its
# own lib folder. "lib" is one of the folders the core's walks of a plugin
# tree leave alone, as are proc, dev, userdata, extdisks, tmp and cache_dir:
# the stand-ins mount nowhere else.
sim_bind_host_libraries() {
    if [ -d "$1/lib" ] && ! sim_is_mounted "$1/lib" && [ -n "$(ls -A "$1/lib" 2>/dev/null)" ]; then
        return 0
    fi
    sim_bind "$(cd /lib && pwd -P)" "$1" lib ro
}

# The host's dynamic loader as the sandbox sees it (below /lib), or nothing.
# The sandbox has no /lib64 or /usr/lib, so a program's own interpreter path
# may not exist there: dynamically linked programs are started through it.
sim_loader() {
    _sim_host_lib=$(cd /lib && pwd -P)
    for _sim_candidate in /lib64/ld-linux-x86-64.so.2 /lib/ld-linux-aarch64.so.1 /lib/ld-linux-armhf.so.3 \
        /lib/ld-linux.so.3 /lib/ld-linux.so.2 /lib/ld-musl-*.so.1; do
        [ -e "$_sim_candidate" ] || continue
        _sim_real=$(readlink -f "$_sim_candidate")
        case "$_sim_real" in
            "$_sim_host_lib"/*)
                printf '/lib/%s\n' "${_sim_real#"$_sim_host_lib"/}"
                return 0
                ;;
        esac
    done
}

# "sim_run_chrooted DIR PROGRAM [ARG...]": replaces the shell with PROGRAM
# chrooted in DIR, through the host's loader when PROGRAM is a dynamically
# linked ELF file of DIR. Inside, DATACENTER_ROOT is /tmp/sim-root, whose
# "userdisk" leads to /userdata when the plugin has "access_userdata", so the
# core's library in the plugin finds the core's files by the core's paths.
sim_run_chrooted() {
    sim_require_sandbox
    _sim_jail=$1
    shift
    _sim_loader=$(sim_loader)
    _sim_file="$_sim_jail/${1#/}"
    if [ -n "$_sim_loader" ] && [ -e "$_sim_jail$_sim_loader" ] && [ -f "$_sim_file" ] &&
        [ "$(dd if="$_sim_file" bs=4 count=1 2>/dev/null | tail -c 3)" = ELF ]; then
        set -- "$_sim_loader" "$@"
    fi
    cd "$_sim_jail" || exit 1
    DATACENTER_ROOT=/tmp/sim-root exec chroot "$_sim_jail" "$@"
}
