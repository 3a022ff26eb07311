// Differences between the supported releases of GLib, found out from the loaded one.
#ifndef QOR_QORGLIBCOMPAT_H
#define QOR_QORGLIBCOMPAT_H

#include <glib.h>

namespace qor
{

// Whether g_dbus_connection_register_object releases the user data when it fails.
inline bool FailedRegistrationReleases()
{
    return glib_check_version(2, 80, 1) == nullptr;
}

} // namespace qor

#endif
