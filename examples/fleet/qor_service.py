"""The service of this device, through its typed interface on the system bus."""

from gi.repository import Gio, GLib

WAIT = 10  # seconds for the applications to hear of a policy; much less than the broker waits for us


class ServiceError(Exception):
    """The service has not done it. Refused: and it will not, however often it is asked."""

    def __init__(self, reason, refused):
        super().__init__(reason)
        self.refused = refused


class Service:
    """Every call has a connection of its own, so restarts of the service and the bus do no harm."""

    PLACE = ("com.norvane.qor.IControl", "/com/norvane/qor/CommunicationChannel")
    POLICY = "com.norvane.qor.Policy1"
    REFUSALS = ["com.norvane.qor.Error." + name
                for name in ("NotWellFormed", "NotPermitted", "TooLarge", "NotStored")]

    def call(self, interface, method, arguments):
        try:
            place = Gio.dbus_address_get_for_bus_sync(Gio.BusType.SYSTEM)
            bus = Gio.DBusConnection.new_for_address_sync(place, Gio.DBusConnectionFlags(1 | 8))
            try:
                return bus.call_sync(*self.PLACE, interface, method, arguments, None, 0,
                                     (WAIT + 20) * 1000).unpack()[0]
            finally:
                bus.close_sync()
        except GLib.Error as error:
            name = Gio.DBusError.get_remote_error(error) or ""
            reason = error.message.replace("GDBus.Error:%s: " % name, name.split(".")[-1] + ": ")
            raise ServiceError(reason, name in self.REFUSALS) from None

    def facts(self):
        return self.call("org.freedesktop.DBus.Properties", "GetAll",
                         GLib.Variant("(s)", (self.POLICY,)))

    def set(self, policy, former):
        """Puts the policy into force in place of the former one; who has heard of it."""
        if b"\0" in policy:
            raise ServiceError("the policy has bytes of value 0", True)
        try:
            arguments = (policy.decode(), {"if-match": GLib.Variant("s", former),
                                           "wait": GLib.Variant("u", WAIT)})
        except UnicodeDecodeError:
            raise ServiceError("the policy is not UTF-8", True) from None
        return self.call(self.POLICY, "SetPolicy", GLib.Variant("(sa{sv})", arguments))
