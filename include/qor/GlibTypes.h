// The GLib types that the endpoints hold, without GLib's headers, and their owning pointer.
#ifndef QOR_GLIBTYPES_H
#define QOR_GLIBTYPES_H

#include <memory>

#include <qor/Export.h>

using GAsyncResult = struct _GAsyncResult;
using GDBusConnection = struct _GDBusConnection;
using GDBusInterfaceVTable = struct _GDBusInterfaceVTable;
using GDBusMessage = struct _GDBusMessage;
using GDBusMethodInvocation = struct _GDBusMethodInvocation;
using GDBusNodeInfo = struct _GDBusNodeInfo;
using GDBusProxy = struct _GDBusProxy;
using GError = struct _GError;
using GMainContext = struct _GMainContext;
using GMainLoop = struct _GMainLoop;
using GObject = struct _GObject;
using GSource = struct _GSource;
using GVariant = struct _GVariant;

namespace qor
{

/// Drops one reference; frees a GError.
struct QOR_API TSGlibRelease
{
    void operator()(GDBusConnection* p) const noexcept;
    void operator()(GDBusMessage* p) const noexcept;
    void operator()(GDBusMethodInvocation* p) const noexcept;
    void operator()(GDBusNodeInfo* p) const noexcept;
    void operator()(GDBusProxy* p) const noexcept;
    void operator()(GError* p) const noexcept;
    void operator()(GMainContext* p) const noexcept;
    void operator()(GMainLoop* p) const noexcept;
    void operator()(GSource* p) const noexcept;
    void operator()(GVariant* p) const noexcept;
};

/// Owns one reference.
template <class T>
using TGlibPtr = std::unique_ptr<T, TSGlibRelease>;

} // namespace qor

#endif
