#!/usr/bin/python3
# Sets the policy from the file that the command line names, if it names one. Then prints the hash
# of the policy in force, now and after each change, even if the service or the bus restarts.
# Needs Debian's package python3-gi.
import sys, time
from gi.repository import Gio, GLib

NAME, PATH = "com.norvane.qor.IControl", "/com/norvane/qor/CommunicationChannel"
ADDRESS = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM)
while True:
    try:
        bus = Gio.DBusConnection.new_for_address_sync(ADDRESS, Gio.DBusConnectionFlags(1 | 8))
        service = Gio.DBusProxy.new_sync(bus, 0, None, NAME, PATH, "com.norvane.qor.Policy1")
        service.connect("g-signal", lambda *signal: print("in force:", signal[3][0], flush=True))
        print("in force:", service.get_cached_property("PolicySha256"), flush=True)
        while sys.argv[1:]: service.SetPolicy("(sa{sv})", open(sys.argv.pop()).read(), {})
        while not bus.is_closed(): GLib.MainContext.default().iteration()
    except GLib.Error as error:
        print(error.message, flush=True)
        time.sleep(1)
