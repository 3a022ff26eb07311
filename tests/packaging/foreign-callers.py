#!/usr/bin/python3
"""Calls every member of qord's interface with good, wrong and hostile arguments, by GDBus and by what
shares no code with it: what comes back is the right answer or the right error, and afterwards qord is
the same process with the same policy.

    foreign-callers.py
"""

import hashlib
import sys

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
    call(POLICY, "SetPolicy", "('<a/>', @a{sv} {}, 'more')", INVALID),
    call(POLICY, "Restore", "(uint64 %d, @a{sv} {})" % LAST, OWN + "NoSuchPolicy"),
    call(POLICY, "Restore", "(uint64 999, @a{sv} {})", OWN + "NoSuchPolicy"),
    call(POLICY, "Restore", "(uint64 1, {'force': <true>})", INVALID),
    *(row for get in ("GetPolicy", "GetPolicyBytes") for row in (
        call(POLICY, get, "(uint64 %d,)" % LAST, OWN + "NoSuchPolicy"),
        call(POLICY, get, "(uint64 999,)", OWN + "NoSuchPolicy"))),
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


class Gdbus:
    """GDBus, by its bindings."""

    def __init__(self):
        self.bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)

    def call(self, interface, member, arguments, files=None):
        try:
            self.bus.call_with_unix_fd_list_sync(NAME, PATH, interface, member, arguments, None, 0,
                                                 60000, files)
        except GLib.Error as error:
            return Gio.DBusError.get_remote_error(error) or error.message
        return ""


class Jeepney:
    """jeepney, which has no library of D-Bus beneath it."""

    def __init__(self):
        self.bus = jeepney.io.blocking.open_dbus_connection("SYSTEM")

    def value(self, value):
        kind = value.get_type_string()
        if kind == "v":
            inner = value.get_variant()
            return inner.get_type_string(), self.value(inner)
        if kind.startswith("a{"):
            return {key.unpack(): self.value(inner) for key, inner in map(parts, parts(value))}
        if kind == "ay":
            return bytes(value.unpack())
        return [self.value(part) for part in parts(value)] if kind[0] == "a" else value.unpack()

    def message(self, interface, member, arguments):
        signature = arguments.get_type_string()[1:-1]
        return jeepney.new_method_call(jeepney.DBusAddress(PATH, NAME, interface), member,
                                       signature or None, tuple(map(self.value, parts(arguments))))

    def call(self, interface, member, arguments):
        reply = self.bus.send_and_get_reply(self.message(interface, member, arguments), timeout=60)
        return reply.header.fields.get(jeepney.HeaderFields.error_name, "")

    def is_cut_off(self, broken):
        """Sends a policy with bytes that no text has; the bus must not let it pass."""
        bus = jeepney.io.blocking.open_dbus_connection("SYSTEM")
        message = self.message(*set_policy("<a>@@@</a>", "")[:3])
        bus.sock.sendall(message.serialise(serial=1000).replace(b"@@@", broken))
        try:
            while True:
                bus.receive(timeout=30)
        except (ConnectionResetError, BrokenPipeError):
            return True
        except TimeoutError:
            return False


class Checks:
    def __init__(self):
        self.gdbus = Gdbus()
        self.passed, self.failed = 0, 0
        self.process = None

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
        who = type(caller).__name__
        for interface, member, arguments, error in GOOD + BAD:
            seen = caller.call(interface, member, arguments)
            shown = arguments.print_(False) if arguments.get_size() < 1000 else "(much)"
            self.expect(who, member + " " + shown, seen, error)
            if error:
                self.expect(who, "afterwards " + member, self.state(), (self.process, HASH))
        print("%s: %d calls" % (who, len(GOOD + BAD)))

    def descriptors(self):
        files = Gio.UnixFDList.new()
        files.append(0)
        for kind, policy in (("s", "<a/>"), ("h", 0)):  # beside the policy, or as one
            arguments = GLib.Variant("(%sa{sv})" % kind, (policy, {}))
            seen = self.gdbus.call(POLICY, "SetPolicy", arguments, files)
            self.expect("Gdbus", "a descriptor", seen, STANDARD + "LimitsExceeded")
        self.expect("Gdbus", "afterwards", self.state(), (self.process, HASH))

    def at_the_limit(self):
        """Whatever a caller may still send, the answer must fit into a message of the bus, too."""
        for room in range(120, 420, 20):
            text = "x" * (32 * MEBIBYTE - room)
            option = {text: GLib.Variant("i", 1)}
            for arguments in (("SetPolicy", GLib.Variant("(sa{sv})", ("<a/>", option))),
                              ("Get", GLib.Variant("(ss)", (POLICY, text))),
                              ("GetAll", GLib.Variant("(s)", (text,)))):
                self.send_alone(PATH, *arguments)
                self.expect("at the limit", "%s, %d bytes left" % (arguments[0], room), self.state(),
                            (self.process, HASH))
            self.send_alone("/" + text, "ListPolicies", None)
            self.expect("at the limit", "a path, %d bytes left" % room, self.state(),
                        (self.process, HASH))

    def send_alone(self, path, member, arguments):
        """On a connection of its own, which the bus may close."""
        address = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM)
        bus = Gio.DBusConnection.new_for_address_sync(address, Gio.DBusConnectionFlags(1 | 8))
        interface = PROPERTIES if member.startswith("Get") else POLICY
        try:
            bus.call_sync(NAME, path, interface, member, arguments, None, 0, 60000)
        except GLib.Error:
            pass


def main():
    checks = Checks()
    checks.process = checks.property("ProcessId")
    for interface, member, arguments, _ in GOOD[-2:]:
        checks.gdbus.call(interface, member, arguments)
    for caller in (checks.gdbus, Jeepney()):
        checks.run(caller)
    checks.descriptors()
    for broken in (b"\xff\xfe\xfd", b"x\0x", b"\xed\xa0\x80"):
        checks.expect("jeepney", repr(broken), Jeepney().is_cut_off(broken), True)
        checks.expect("jeepney", "afterwards", checks.state(), (checks.process, HASH))
    checks.at_the_limit()
    print("%d passed, %d failed" % (checks.passed, checks.failed))
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    main()
