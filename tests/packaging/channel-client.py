#!/usr/bin/env python3
"""Hands the platform monitoring service a policy and listens to events, byte by byte.

Speaks the channel of docs/wire-protocol.md and uses nothing of the QOR library. Who only wants to
set a policy or to hear of one has it easier: examples/python/policy.py.

Exit status: 0 the policy is stored, 1 the service refused it, 2 it was not delivered,
3 an answer that cannot be read.
"""

import argparse
import struct
import sys

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

INTERFACE = "com.norvane.qor.IControl"
PATH = "/com/norvane/qor/CommunicationChannel"

SET_POLICY = 4  # to the service
POLICY_UPDATE, REQUEST_PROCESS_INFO = 2, 4  # from the service
EVENT_NAMES = {POLICY_UPDATE: "policy-update", REQUEST_PROCESS_INFO: "process-info"}

SIGNATURE = b"serialization::archive"
ARCHIVE_VERSION = 17  # readers take their own version and every older one
WORDS = {4: "=I", 8: "=Q"}  # of a 32-bit and of a 64-bit process


class Archives:
    """Those that a process writes and reads whose words have so many bytes."""

    def __init__(self, word_size):
        self.word = WORDS[word_size]
        # The sizes of int, long, float and double, and the number 1, which shows the byte order.
        self.layout = bytes((4, word_size, 4, 8)) + struct.pack("=i", 1)
        self.header = (struct.pack(self.word, len(SIGNATURE)) + SIGNATURE +
                       struct.pack("<H", ARCHIVE_VERSION) + self.layout)

    def write_text(self, text):
        return self.header + struct.pack(self.word, len(text)) + text

    def read_int(self, data):
        version = len(self.header) - len(self.layout) - 2
        if len(data) < len(self.header) + 4:
            raise ValueError("an answer of %d bytes is too short for an integer" % len(data))
        if (data[:version] != self.header[:version] or
                data[version + 2:len(self.header)] != self.layout):
            raise ValueError("an answer that is not an archive of this kind of process")
        return struct.unpack_from("<i", data, len(self.header))[0]


class Client(dbus.service.Object):
    def __init__(self, arguments):
        super().__init__(dbus.SystemBus(), PATH)
        self.arguments = arguments
        self.archives = Archives(arguments.word_size)
        self.events_left = arguments.listen
        self.loop = GLib.MainLoop()

    def show(self, what, data):
        if self.arguments.show_bytes:
            print(what, data.hex(" "), flush=True)

    def call(self, method, data):
        """Calls the service; gives back the bytes of the answer, none if the method has none."""
        self.show("> " + method, data)
        answer = self.connection.call_blocking(INTERFACE, PATH, INTERFACE, method, "ay",
                                               (dbus.ByteArray(data),), 10.0, byte_arrays=True) or b""
        self.show("< " + method, answer)
        return answer

    def set_policy(self, text):
        """Gives back the service's result code; None if the service could not take the request."""
        envelope = struct.pack("<i?", SET_POLICY, False)  # the type, and that it is synchronous
        answer = self.call("Send", envelope + self.archives.write_text(text))
        if not answer:
            raise ValueError("an empty answer")
        return self.archives.read_int(answer[1:]) if answer[0] else None

    @dbus.service.method(INTERFACE, in_signature="ay", out_signature="ay", byte_arrays=True)
    def Send(self, request):
        """An event of the service."""
        self.show("> event", request)
        event = struct.unpack_from("<i?", request)[0] if len(request) >= 5 else 0
        known = event in EVENT_NAMES
        answer = struct.pack("?", known)
        self.show("< event", answer)
        if known:
            print("event", EVENT_NAMES[event], flush=True)
            self.events_left -= 1
        if self.events_left == 0:
            GLib.idle_add(self.loop.quit)
        return dbus.ByteArray(answer)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("file", help="the policy")
    parser.add_argument("--listen", type=int, default=0, help="stay until so many events have come")
    parser.add_argument("--show-bytes", action="store_true", help="print every envelope in hex")
    parser.add_argument("--word-size", type=int, choices=WORDS, default=struct.calcsize("@N"),
                        help="speak as a process whose words have so many bytes; default: its own")
    arguments = parser.parse_args()
    dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
    try:
        client = Client(arguments)
        if arguments.listen:
            client.call("Hello", struct.pack("<2i", POLICY_UPDATE, REQUEST_PROCESS_INFO))
        with open(arguments.file, "rb") as policy:
            result = client.set_policy(policy.read())
        print("the service could not take the request" if result is None else "result %d" % result,
              flush=True)
        if arguments.listen:
            client.loop.run()
            client.connection.flush()  # the answer is out before this process ends
        return 0 if result == 0 else 1
    except dbus.DBusException as error:
        print("not delivered:", error, file=sys.stderr)
        return 2
    except ValueError as error:
        print(error, file=sys.stderr)
        return 3


if __name__ == "__main__":
    sys.exit(main())
