/* Sets the policy from the file that the command line names, if it names one. Then prints the hash
   of the policy in force, now and after each change, even if the service or the bus restarts.
   cc policy_gdbus.c $(pkg-config --cflags --libs gio-2.0) */
#include <gio/gio.h>

static const char NAME[] = "com.norvane.qor.IControl";
static const char PATH[] = "/com/norvane/qor/CommunicationChannel";

static void Tell(GDBusProxy* service)
{
    GVariant* sha256 = g_dbus_proxy_get_cached_property(service, "PolicySha256");
    g_print("in force: %s\n", sha256 ? g_variant_get_string(sha256, NULL) : "unknown");
    g_clear_pointer(&sha256, g_variant_unref);
}

static void SetPolicy(GDBusProxy* service, const char* policy, GError** error)
{
    GVariant* arguments = g_variant_new("(sa{sv})", policy, NULL); /* no options */
    GVariant* result = g_dbus_proxy_call_sync(service, "SetPolicy", arguments, 0, -1, NULL, error);
    g_clear_pointer(&result, g_variant_unref);
}

static void Follow(GDBusConnection* bus, const char* policy, GError** error)
{
    GDBusProxy* service =
        g_dbus_proxy_new_sync(bus, 0, NULL, NAME, PATH, "com.norvane.qor.Policy1", NULL, error);
    if (service != NULL)
    {
        g_signal_connect(service, "g-properties-changed", G_CALLBACK(Tell), NULL);
        Tell(service);
        if (policy != NULL)
            SetPolicy(service, policy, error);
        while (*error == NULL && !g_dbus_connection_is_closed(bus))
            g_main_context_iteration(NULL, TRUE);
        g_object_unref(service);
    }
    g_object_unref(bus);
}

int main(int count, char** arguments)
{
    char* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, NULL, NULL);
    char* policy = NULL;
    if (count > 1 && !g_file_get_contents(arguments[1], &policy, NULL, NULL))
        return 1;
    for (const char* next = policy;; next = NULL, g_usleep(G_USEC_PER_SEC))
    {
        GError* error = NULL;
        GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
            address, 1 | 8 /* authenticate, to a bus */, NULL, NULL, &error);
        if (bus != NULL)
            Follow(bus, next, &error);
        if (error != NULL)
            g_print("%s\n", error->message);
        g_clear_error(&error);
    }
}
