# Shared helpers of the platform command stand-ins. Source it with
#   . "$(dirname "$0")/sim-lib.sh"
# Every stand-in logs its argv with sim_log "$0" "$@" and answers from files
# that a test writes below $DATACENTER_ROOT/sim/ (see sim/README.md).

# The simulated root; a stand-in never works outside it.
sim_root() {
    if [ -z "${DATACENTER_ROOT:-}" ]; then
        echo "$(basename "$0"): DATACENTER_ROOT is not set" >&2
        exit 127
    fi
    printf '%s\n' "$DATACENTER_ROOT"
}

# Appends one line "name arg1 arg2 ..." to $DATACENTER_ROOT/tmp/sim-commands.log.
sim_log() {
    _sim_name=$(basename "$1")
    shift
    _sim_root=$(sim_root) || exit 127
    mkdir -p "$_sim_root/tmp"
    printf '%s' "$_sim_name" >>"$_sim_root/tmp/sim-commands.log"
    for _sim_arg in "$@"; do
        printf ' %s' "$_sim_arg" >>"$_sim_root/tmp/sim-commands.log"
    done
    printf '\n' >>"$_sim_root/tmp/sim-commands.log"
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
# (the script's mount points) in it, prints sim/NAME/output when present.
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
    sim_answer "$_sim_name" output || true
    exit 0
}
