#!/usr/bin/python3
"""Calls every member of qord's interface as other implementations of D-Bus do, with good, wrong and
hostile arguments: what comes back is the right answer or the right error, and afterwards qord is
the same process with the same policy.

    foreign-callers.py FOLDER-WITH-dbus-next      or -, where there is none
"""

import functools
import hashlib
import json
import os
import re
import shutil
import subprocess
import sys

import dbus
import jeepney
import jeepney.io.blocking
from gi.repository import Gio, GLib

NAME = "com.norvane.qor.IControl"
PATH = "/com/norvane/qor/CommunicationChannel"
POLICY, PROPERTIES = "com.norvane.qor.Policy1", "org.freedesktop.DBus.Properties"
OWN, STANDARD = "com.norvane.qor.Error.", "org.freedesktop.DBus.Error."
INVALID = STANDARD + "InvalidArgs"
IN_FORCE = "<policy>in force</policy>"
HASH = hashlib.sha256(IN_FORCE.encode()).hexdigest()
LAST = 2**64 - 1
COMMAND_LINE = 100_000  # bytes that an argument of a program may have
MEBIBYTE = 1 << 20


def quoted(text):
    return GLib.Variant("s", text).print_(False)


def call(interface, member, arguments, error=""):
    """A row of the table: the arguments as GVariant text, and the name of the error, if any."""
    return interface, member, GLib.Variant.parse(None, arguments, None, None), error


def set_policy(policy, options, error=""):
    return call(POLICY, "SetPolicy", "(%s, @a{sv} {%s})" % (quoted(policy), options), error)


GOOD = [
    set_policy("<policy/>", ""),
    call(POLICY, "GetPolicy", "(uint64 0,)"),
    set_policy("<policy>äöü €</policy>", "'wait': <uint32 1>"),
    call(POLICY, "GetPolicyBytes", "(uint64 0,)"),
    call(POLICY, "Restore", "(uint64 1, @a{sv} {})"),  # qord keeps enough of them
    call(POLICY, "ListPolicies", "()"),
    call(POLICY, "ListClients", "()"),
    call(PROPERTIES, "Get", "('%s', 'PolicySha256')" % POLICY),
    call(PROPERTIES, "GetAll", "('%s',)" % POLICY),
    set_policy(IN_FORCE, ""),
    set_policy(IN_FORCE, "'if-match': <'%s'>" % HASH),
]
BAD = [
    set_policy("<policy>", "", OWN + "NotWellFormed"),
    set_policy("", "", OWN + "NotWellFormed"),
    set_policy("<a>" * MEBIBYTE, "", OWN + "TooLarge"),  # for the memory of the check
    set_policy("<a>%s</a>" % ("x" * 20 * MEBIBYTE), "", OWN + "TooLarge"),
    set_policy("<a/>", "'if-match': <'%s'>" % ("0" * 64), OWN + "Changed"),
    set_policy("<a/>", "'if-match': <''>", OWN + "Changed"),
    set_policy("<a/>", "'if-match': <'%s'>" % HASH.upper(), INVALID),
    set_policy("<a/>", "'if-match': <uint32 1>", INVALID),
    set_policy("<a/>", "'wait': <'1'>", INVALID),
    set_policy("<a/>", "'wait': <uint64 1>", INVALID),
    set_policy("<a/>", "'wait': <uint32 3601>", INVALID),
    set_policy("<a/>", "'wait': <uint32 4294967295>", INVALID),
    set_policy("<a/>", "'Wait': <uint32 1>", INVALID),
    set_policy("<a/>", "'': <[<1>, <2>]>", INVALID),
    set_policy("<a/>", ", ".join("'%d': <%d>" % (i, i) for i in range(5000)), INVALID),
    set_policy("<a/>", quoted("\x01" * 9 * MEBIBYTE) + ": <1>", INVALID),
    call(POLICY, "SetPolicy", "()", INVALID),
    call(POLICY, "SetPolicy", "('<a/>',)", INVALID),
    call(POLICY, "SetPolicy", "('<a/>', @a{ss} {})", INVALID),
    call(POLICY, "SetPolicy", "([byte 60, 97, 47, 62], @a{sv} {})", INVALID),
    call(POLICY, "SetPolicy", "('<a/>', @a{sv} {}, 'more')", INVALID),
    call(POLICY, "Restore", "(uint64 %d, @a{sv} {})" % LAST, OWN + "NoSuchPolicy"),
    call(POLICY, "Restore", "(uint64 999, @a{sv} {})", OWN + "NoSuchPolicy"),
    call(POLICY, "Restore", "(uint64 1, {'force': <true>})", INVALID),
    call(POLICY, "Restore", "(-1, @a{sv} {})", INVALID),
    *(row for get in ("GetPolicy", "GetPolicyBytes") for row in (
        call(POLICY, get, "(uint64 %d,)" % LAST, OWN + "NoSuchPolicy"),
        call(POLICY, get, "(uint64 999,)", OWN + "NoSuchPolicy"),
        call(POLICY, get, "(-1,)", INVALID),
        call(POLICY, get, "('0',)", INVALID),
        call(POLICY, get, "()", INVALID))),
    call(POLICY, "ListPolicies", "('',)", INVALID),
    call(POLICY, "ListClients", "(uint64 0,)", INVALID),
    call(POLICY, "Forget", "()", STANDARD + "UnknownMethod"),
    call(POLICY, "PolicyChanged", "('', @a{sv} {})", STANDARD + "UnknownMethod"),
    call(PROPERTIES, "Get", "('%s', 'Nothing')" % POLICY, INVALID),
    call(PROPERTIES, "Get", "('%s', '')" % POLICY, INVALID),
    call(PROPERTIES, "Get", "('%s', '%s')" % (POLICY, "x" * MEBIBYTE), INVALID),
    call(PROPERTIES, "Get", "('com.norvane.qor.Policy2', 'Version')", INVALID),
    call(PROPERTIES, "Set", "('%s', 'PolicySha256', <'%s'>)" % (POLICY, "0" * 64), INVALID),
    call(PROPERTIES, "Set", "('%s', 'PoliciesKept', <uint32 0>)" % POLICY, INVALID),
]


def parts(value):
    return [value.get_child_value(i) for i in range(value.n_children())]


class Binding:
    """What its calls take: values of Python, in variants with their types."""

    def native(self, value):
        kind = value.get_type_string()
        if kind == "v":
            return self.variant(value.get_variant())
        if kind.startswith("a{"):
            return {key.unpack(): self.native(inner) for key, inner in map(parts, parts(value))}
        return list(map(self.native, parts(value))) if kind[0] in "a(" else value.unpack()


class Gdbus:
    """GDBus, by its bindings."""

    def __init__(self):
        self.bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)

    def call(self, interface, member, arguments):
        try:
            self.bus.call_sync(NAME, PATH, interface, member, arguments, None, 0, 60000)
        except GLib.Error as error:
            return Gio.DBusError.get_remote_error(error) or error.message
        return ""


class Busctl:
    """sd-bus, by busctl call."""

    def words(self, value):
        kind = value.get_type_string()
        if kind == "v":
            inner = value.get_variant()
            return [inner.get_type_string(), *self.words(inner)]
        if kind[0] in "a({":
            count = [str(value.n_children())] if kind[0] == "a" else []
            return count + [word for part in parts(value) for word in self.words(part)]
        return [value.get_string() if kind == "s" else str(int(value.unpack()))]

    def call(self, interface, member, arguments):
        signature = arguments.get_type_string()[1:-1]
        words = [signature, *self.words(arguments)] if signature else []
        command = ["busctl", "--system", "call", "--", NAME, PATH, interface, member, *words]
        if sum(map(len, command)) > COMMAND_LINE:
            return None
        done = subprocess.run(command, capture_output=True, text=True, timeout=90, check=False,
                              env={**os.environ, "SYSTEMD_LOG_LEVEL": "debug"})  # tells the name
        found = re.search(r"type=error .* error-name=(\S+) ", done.stderr)
        if found:
            return found[1]
        return "" if done.returncode == 0 else "no name in: " + done.stderr[-300:]


class DbusPython(Binding):
    """libdbus, by its bindings."""

    TYPES = {"s": dbus.String, "b": dbus.Boolean, "i": dbus.Int32, "u": dbus.UInt32, "t": dbus.UInt64,
             "av": functools.partial(dbus.Array, signature="v")}

    def __init__(self):
        self.bus = dbus.SystemBus()

    def variant(self, value):
        return self.TYPES[value.get_type_string()](self.native(value), variant_level=1)

    def call(self, interface, member, arguments):
        try:
            self.bus.call_blocking(NAME, PATH, interface, member, arguments.get_type_string()[1:-1],
                                   self.native(arguments), 60.0)
        except dbus.DBusException as error:
            return error.get_dbus_name()
        return ""


class Jeepney(Binding):
    """jeepney, which has no library of D-Bus beneath it."""

    def __init__(self):
        self.bus = jeepney.io.blocking.open_dbus_connection("SYSTEM")

    def variant(self, value):
        return value.get_type_string(), self.native(value)

    def call(self, interface, member, arguments):
        signature = arguments.get_type_string()[1:-1]
        message = jeepney.new_method_call(jeepney.DBusAddress(PATH, NAME, interface), member,
                                          signature or None, tuple(self.native(arguments)))
        reply = self.bus.send_and_get_reply(message, timeout=60)
        return reply.header.fields.get(jeepney.HeaderFields.error_name, "")


class DbusNext(Binding):
    """dbus-next, in a process of its own, which reads calls and writes the names of errors."""

    def __init__(self, folder):
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "foreign-caller.js")
        self.node = subprocess.Popen(["node", script], stdin=subprocess.PIPE, text=True,
                                     stdout=subprocess.PIPE,
                                     env={**os.environ, "NODE_PATH": folder + "/node_modules"})

    def native(self, value):
        if value.get_type_string() == "t":
            return {"big": str(value.unpack())}
        return super().native(value)

    def variant(self, value):
        return {"signature": value.get_type_string(), "value": self.native(value)}

    def call(self, interface, member, arguments):
        if arguments.get_size() > 12 * MEBIBYTE:
            return None  # it takes minutes to pack such a text
        json.dump({"destination": NAME, "path": PATH, "interface": interface, "member": member,
                   "signature": arguments.get_type_string()[1:-1],
                   "body": self.native(arguments)}, self.node.stdin)
        self.node.stdin.write("\n")
        self.node.stdin.flush()
        return self.node.stdout.readline().strip()


class Checks:
    def __init__(self):
        self.gdbus = Gdbus()
        self.passed, self.failed = 0, 0
        self.process = self.property("ProcessId")

    def property(self, name):
        value, = self.gdbus.bus.call_sync(NAME, PATH, PROPERTIES, "Get",
                                        GLib.Variant("(ss)", (POLICY, name)), None, 0, 10000)
        return value

    def state(self):
        return self.property("ProcessId"), self.property("PolicySha256")

    def expect(self, who, what, seen, wanted):
        if seen == wanted:
            self.passed += 1
            return
        self.failed += 1
        print("FAILED: %s: %s: %r and not %r" % (who, what[:200], seen, wanted))

    def run(self, caller):
        who, calls = type(caller).__name__, 0
        for interface, member, arguments, error in GOOD + BAD:
            seen = caller.call(interface, member, arguments)
            if seen is None:
                continue
            calls += 1
            shown = arguments.print_(False) if arguments.get_size() < 1000 else "(much)"
            self.expect(who, member + " " + shown, seen, error)
            if error:
                self.expect(who, "afterwards " + member, self.state(), (self.process, HASH))
        print("%s: %d calls" % (who, calls))
        self.expect(who, "calls", calls > 5, True)

    def at_the_limit(self):
        """No answer repeats so much that it does not fit into a message of the bus."""
        text = "x" * (32 * MEBIBYTE - 400)
        limit = STANDARD + "LimitsExceeded"
        for path, interface, member, arguments, expected in (
                (PATH, POLICY, "SetPolicy", set_policy("<a/>", quoted(text) + ": <1>")[2],
                 STANDARD + "InvalidArgs"),
                (PATH, PROPERTIES, "Get", GLib.Variant("(ss)", (POLICY, text)), limit),
                (PATH, PROPERTIES, "GetAll", GLib.Variant("(s)", (text,)), limit),
                ("/" + text, POLICY, "ListPolicies", None, limit)):
            self.expect("at the limit", member, self.error_of(path, interface, member, arguments),
                        expected)
            self.expect("at the limit", member + ", afterwards", self.state(), (self.process, HASH))

    def error_of(self, path, interface, member, arguments):
        """On a connection of its own, which the bus may close."""
        address = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM)
        bus = Gio.DBusConnection.new_for_address_sync(address, Gio.DBusConnectionFlags(1 | 8))
        try:
            bus.call_sync(NAME, path, interface, member, arguments, None, 0, 60000)
        except GLib.Error as error:
            return Gio.DBusError.get_remote_error(error)


def main():
    checks = Checks()
    callers = [checks.gdbus, DbusPython(), Jeepney()]
    if shutil.which("busctl"):
        callers.append(Busctl())
    else:
        print("not checked: sd-bus: busctl is not installed")
    if sys.argv[1] != "-":
        callers.append(DbusNext(sys.argv[1]))
    for interface, member, arguments, _ in GOOD[-2:]:
        checks.gdbus.call(interface, member, arguments)
    for caller in callers:
        checks.run(caller)
    checks.at_the_limit()
    print("%d passed, %d failed" % (checks.passed, checks.failed))
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    main()
