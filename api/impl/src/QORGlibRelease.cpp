// How each GLib type is given back.
#include <qor/GlibTypes.h>

#include <gio/gio.h>

namespace qor
{

void TSGlibRelease::operator()(GDBusConnection* p) const noexcept
{
    g_object_unref(p);
}

void TSGlibRelease::operator()(GDBusMessage* p) const noexcept
{
    g_object_unref(p);
}

void TSGlibRelease::operator()(GDBusMethodInvocation* p) const noexcept
{
    g_object_unref(p);
}

void TSGlibRelease::operator()(GDBusNodeInfo* p) const noexcept
{
    g_dbus_node_info_unref(p);
}

void TSGlibRelease::operator()(GDBusProxy* p) const noexcept
{
    g_object_unref(p);
}

void TSGlibRelease::operator()(GError* p) const noexcept
{
    g_error_free(p);
}

void TSGlibRelease::operator()(GMainContext* p) const noexcept
{
    g_main_context_unref(p);
}

void TSGlibRelease::operator()(GMainLoop* p) const noexcept
{
    g_main_loop_unref(p);
}

void TSGlibRelease::operator()(GSource* p) const noexcept
{
    g_source_unref(p);
}

void TSGlibRelease::operator()(GVariant* p) const noexcept
{
    g_variant_unref(p);
}

} // namespace qor
