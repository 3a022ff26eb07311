# Shared by the checks of what an installation brings: a private bus that knows only the shipped
# files, and steps that print what they saw. Sourced; the caller has set -euo pipefail.

work=$(mktemp -d)
chmod 755 "$work"
pids=()
failures=0
passes=0

clean_up() {
    local status=$?
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    rm -rf "$work"
    exit "$status"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

# start_bus: a bus that allows what the files in $work/system.d do.
start_bus() {
    . "$(dirname "${BASH_SOURCE[0]}")/../../scripts/closed-bus"
    mkdir -p "$work/system.d" "$work/services"
    closed_bus "$work" >"$work/bus.conf"
    "${QOR_TEST_BUS:-dbus-daemon}" --config-file="$work/bus.conf" --nofork >"$work/bus.log" 2>&1 &
    pids+=($!)
    wait_for "the bus" test -S "$work/bus"
    export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus"
}

# wait_for WHAT COMMAND...: until the command succeeds, for at most 30 seconds.
wait_for() {
    local what=$1 i
    shift
    for ((i = 0; i < 300; i++)); do
        if "$@" >/dev/null 2>&1; then
            return 0
        fi
        sleep 0.1
    done
    echo "gave up waiting for $what" >&2
    return 1
}

# check WHAT COMMAND...: counts one step.
check() {
    local what=$1
    shift
    if "$@" >"$work/check.log" 2>&1; then
        passes=$((passes + 1))
        echo "ok: $what"
    else
        failures=$((failures + 1))
        echo "FAILED: $what"
        sed 's/^/    /' "$work/check.log"
    fi
}

not() { ! "$@"; }

finish() {
    echo "$passes passed, $failures failed"
    test "$failures" -eq 0
}
