# Shared by the checks of what an installation brings: a private bus that knows only the shipped
# files, and steps that print what they saw. Sourced; the caller has set -euo pipefail.
# shellcheck shell=bash

work=$(mktemp -d)
chmod 755 "$work"
user=$(id -un)
pids=()
failures=0
passes=0

end_processes() { # PID...
    local pid
    for pid in "$@"; do
        kill "$pid" 2>/dev/null || true
        kill -CONT "$pid" 2>/dev/null || true # where it is stopped
    done
    wait 2>/dev/null || true
}
clean_up() {
    local status=$?
    end_processes "${pids[@]}"
    rm -rf "$work"
    exit "$status"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

# launch LOG COMMAND...: in the background; its process is $started.
launch() {
    "${@:2}" >"$1" 2>&1 &
    started=$!
    pids+=("$started")
}

# start_bus POLICY-TEMPLATE [USER]: a bus that allows what the shipped file does, with the service of
# that user, and what others in $work/system.d do.
start_bus() {
    local here
    here=$(dirname "${BASH_SOURCE[0]}")
    . "$here/../../scripts/lib/closed-bus.sh"
    mkdir -p "$work/system.d" "$work/services" "$work/state"
    sed "s/@QOR_SERVICE_USER@/${2:-$user}/g" "$1" >"$work/system.d/com.norvane.qor.IControl.conf"
    closed_bus "$work" >"$work/bus.conf"
    launch "$work/bus.log" "${QOR_TEST_BUS:-dbus-daemon}" --config-file="$work/bus.conf" --nofork
    wait_for "the bus" test -S "$work/bus"
    export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$work/bus"
}

# wait_for WHAT COMMAND...: until the command succeeds, for at most 30 seconds.
wait_for() {
    local what=$1 end=$((SECONDS + 30))
    shift
    until "$@" >/dev/null 2>&1; do
        if ((SECONDS > end)); then
            echo "gave up waiting for $what" >&2
            return 1
        fi
        sleep 0.1
    done
}

# check WHAT COMMAND...: counts one step. A function may have several commands, and fails with the
# first one that does: it runs in a shell of its own and not as a condition, where set -e would not
# hold. Only this shell can wait for its children.
check() {
    local what=$1 status
    # shellcheck disable=SC2034 # the trap uses it
    pids_before=${#pids[@]}
    shift
    set +e
    if [[ $1 == wait ]]; then
        wait "${@:2}" >"$work/check.log" 2>&1
    else
        (
            trap 'end_processes "${pids[@]:pids_before}"' EXIT
            set -eE
            "$@"
        ) >"$work/check.log" 2>&1
    fi
    status=$?
    set -e
    if ((status == 0)); then
        passes=$((passes + 1))
        echo "ok: $what"
    else
        failures=$((failures + 1))
        echo "FAILED: $what (status $status)"
        sed 's/^/    /' "$work/check.log"
    fi
}

# check_with PROGRAM WHAT COMMAND...: the step, where that program is installed.
check_with() {
    if command -v "$1" >/dev/null; then
        check "${@:2}"
    else
        echo "not checked: $2: $1 is not installed"
    fi
}

# ends_with STATUS COMMAND...
ends_with() {
    local wanted=$1 status=0
    shift
    "$@" || status=$?
    [[ $status -eq $wanted ]]
}

# npm_package NAME@VERSION FOLDER: has it in FOLDER/node_modules, without what would have to be
# compiled. Where that cannot be, $npm_reason says why; otherwise it is empty.
npm_package() {
    local options=(--no-save --omit=optional --ignore-scripts --no-audit --no-fund --fetch-retries=1)
    npm_reason=
    if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
        npm_reason="node and npm are not installed"
        return
    fi
    mkdir -p "$2"
    # Two tests may want it at a time.
    exec {npm_lock}<"$2"
    flock "$npm_lock"
    if [[ ! -e $2/node_modules/${1%@*}/package.json ]] &&
        ! timeout 90 npm install --prefix "$2" "${options[@]}" "$1" >"$work/npm.log" 2>&1; then
        # shellcheck disable=SC2034 # for the callers
        npm_reason="npm does not get $1: $(grep -m 1 -E 'npm (ERR!|error)' "$work/npm.log" || true)"
    fi
    exec {npm_lock}<&-
}

finish() {
    echo "$passes passed, $failures failed"
    ((passes > 0 && failures == 0))
}
