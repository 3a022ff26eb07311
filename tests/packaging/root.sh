# Shared by the checks that install packages in a fresh Debian root, as its only user: lib.sh, a system
# bus that starts the service, and a stand-in for systemd. Sourced.
# shellcheck shell=bash
set -euo pipefail
export LC_ALL=C DEBIAN_FRONTEND=noninteractive
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# What stands in the root, but for what the system itself keeps changing, and the compiler's cache,
# which other roots share.
inventory() {
    find / -xdev \( -path /proc -o -path /sys -o -path /tmp -o -path /run -o -path /dev \
        -o -path /var/log -o -path /var/cache -o -path /var/lib/apt -o -path /var/lib/dpkg \
        -o -path "$HOME/.rpmdb" -o -path "$HOME/.cache" \) -prune -o -printf '%p %m %u %g\n' | sort
    sort /etc/passwd /etc/group
}
service_is_another() { # than PID
    local now
    now=$(pidof qord)
    [[ $now != "$1" ]]
}

# In place of systemd, for what the packages ask of it: the bus starts the service.
mkdir -p /run/systemd/system
cat >/usr/sbin/systemctl <<'END_OF_SYSTEMCTL'
#!/bin/sh
pid=$(pidof qord) || exit 0
case " $* " in *" stop "* | *" try-restart "*)
    kill "$pid"
    while kill -0 "$pid" 2>/dev/null; do sleep 0.1; done ;;
esac
case " $* " in *" try-restart "*)
    dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.StartServiceByName string:com.norvane.qor.IControl uint32:0 ;;
esac
END_OF_SYSTEMCTL
chmod +x /usr/sbin/systemctl

mkdir -p /run/dbus
dbus-daemon --system --nofork --nopidfile >/tmp/bus.log 2>&1 &
bus=$!
pids+=("$bus")
wait_for "the bus" test -S /run/dbus/system_bus_socket
