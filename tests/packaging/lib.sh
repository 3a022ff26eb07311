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

# start_bus: a system-type bus that forbids everything but what the files in $work/system.d allow,
# as the system bus does, and that starts services from $work/services.
start_bus() {
    mkdir -p "$work/system.d" "$work/services"
    cat >"$work/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$work/bus</listen>
  <auth>EXTERNAL</auth>
  <servicedir>$work/services</servicedir>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <includedir>$work/system.d</includedir>
</busconfig>
CONF
    dbus-daemon --config-file="$work/bus.conf" --nofork >"$work/bus.log" 2>&1 &
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

finish() {
    echo "$passes passed, $failures failed"
    test "$failures" -eq 0
}
