// What GLib promises, told to the thread sanitizer.
//
// GLib is not built with the sanitizer, so the order that it guarantees is invisible: that a source
// is posted before it is dispatched, that user data is handed over before its handlers see it, that
// a handler has returned before its user data is freed, and that a buffer is filled before it is
// freed. Each of the functions below marks exactly one such edge, on an object of its own, and
// passes the call on. What the code under test must order itself is not touched.
#include <dlfcn.h>

#include <memory>
#include <tuple>

#include <gio/gio.h>
#include <glib-unix.h>

extern "C" void __tsan_acquire(void* pAddress);
extern "C" void __tsan_release(void* pAddress);

#define QORTEST_EXPORT extern "C" __attribute__((visibility("default")))

// The function of that name that stands behind the one here.
#define QORTEST_NEXT(function) reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, #function))

namespace
{

// Stands in for user data: the handlers that share it, and who frees it.
struct Box
{
    GCallback handlers[2];
    gpointer data;
    GDestroyNotify notify;
};

template <class TFirst, class TSecond = void (*)()>
Box* NewBox(gpointer data, GDestroyNotify notify, TFirst first, TSecond second = nullptr)
{
    Box* const pBox = new Box{
        {reinterpret_cast<GCallback>(first), reinterpret_cast<GCallback>(second)}, data, notify};
    __tsan_release(pBox);
    return pBox;
}

void FreeBox(gpointer p)
{
    Box* const pBox = static_cast<Box*>(p);
    __tsan_acquire(pBox);
    if (pBox->notify != nullptr)
    {
        pBox->notify(pBox->data);
    }
    delete pBox;
}

// Calls a handler, whose last argument is the user data: what came before is seen, and the next
// one sees this.
template <int INDEX, class TResult, class... TArguments>
TResult Run(TArguments... arguments)
{
    auto all = std::make_tuple(arguments...);
    gpointer& last = std::get<sizeof...(TArguments) - 1>(all);
    Box* const pBox = static_cast<Box*>(last);
    const std::unique_ptr<Box, void (*)(gpointer)> leave(pBox, &__tsan_release);
    __tsan_acquire(pBox);
    last = pBox->data;
    return std::apply(reinterpret_cast<TResult (*)(TArguments...)>(pBox->handlers[INDEX]), all);
}

// What GLib is given in place of a handler.
template <int INDEX = 0, class TResult, class... TArguments>
auto Runner(TResult (*handler)(TArguments...)) -> TResult (*)(TArguments...)
{
    return handler == nullptr ? nullptr : &Run<INDEX, TResult, TArguments...>;
}

} // namespace

QORTEST_EXPORT void g_main_context_invoke(GMainContext* pContext, GSourceFunc function,
                                          gpointer data)
{
    g_main_context_invoke_full(pContext, G_PRIORITY_DEFAULT, Runner(function),
                               NewBox(data, nullptr, function), &FreeBox);
}

QORTEST_EXPORT guint g_bus_watch_name_on_connection(GDBusConnection* pConnection, const gchar* name,
                                                    GBusNameWatcherFlags flags,
                                                    GBusNameAppearedCallback appeared,
                                                    GBusNameVanishedCallback vanished,
                                                    gpointer data, GDestroyNotify notify)
{
    static const auto next = QORTEST_NEXT(g_bus_watch_name_on_connection);
    return next(pConnection, name, flags, Runner<0>(appeared), Runner<1>(vanished),
                NewBox(data, notify, appeared, vanished), &FreeBox);
}

QORTEST_EXPORT guint g_bus_own_name_on_connection(GDBusConnection* pConnection, const gchar* name,
                                                  GBusNameOwnerFlags flags,
                                                  GBusNameAcquiredCallback acquired,
                                                  GBusNameLostCallback lost, gpointer data,
                                                  GDestroyNotify notify)
{
    static const auto next = QORTEST_NEXT(g_bus_own_name_on_connection);
    return next(pConnection, name, flags, Runner<0>(acquired), Runner<1>(lost),
                NewBox(data, notify, acquired, lost), &FreeBox);
}

QORTEST_EXPORT guint g_dbus_connection_register_object(GDBusConnection* pConnection,
                                                       const gchar* path, GDBusInterfaceInfo* pInfo,
                                                       const GDBusInterfaceVTable* pVtable,
                                                       gpointer data, GDestroyNotify notify,
                                                       GError** ppError)
{
    static const auto next = QORTEST_NEXT(g_dbus_connection_register_object);
    static const GDBusInterfaceVTable vtable{Runner(pVtable->method_call), nullptr, nullptr, {}};
    Box* const pBox = NewBox(data, notify, pVtable->method_call);
    const guint id = next(pConnection, path, pInfo, &vtable, pBox, &FreeBox, ppError);
    if (id == 0 && glib_check_version(2, 80, 1) != nullptr)
    {
        delete pBox; // older releases do not free the user data of an object that they refuse
    }
    return id;
}

QORTEST_EXPORT guint g_dbus_connection_add_filter(GDBusConnection* pConnection,
                                                  GDBusMessageFilterFunction function,
                                                  gpointer data, GDestroyNotify notify)
{
    static const auto next = QORTEST_NEXT(g_dbus_connection_add_filter);
    return next(pConnection, Runner(function), NewBox(data, notify, function), &FreeBox);
}

// Only the sources that hold a link of an endpoint: timers, idle work and descriptors. GIO's own
// sources, which come here too, have other callbacks.
QORTEST_EXPORT void g_source_set_callback(GSource* pSource, GSourceFunc function, gpointer data,
                                          GDestroyNotify notify)
{
    static const auto next = QORTEST_NEXT(g_source_set_callback);
    if (notify != &g_atomic_rc_box_release)
    {
        next(pSource, function, data, notify);
        return;
    }
    const bool isPlain = pSource->source_funcs != &g_unix_fd_source_funcs;
    next(pSource,
         isPlain ? Runner(function)
                 : G_SOURCE_FUNC(Runner(reinterpret_cast<GUnixFDSourceFunc>(
                       reinterpret_cast<void (*)()>(function)))),
         NewBox(data, notify, function), &FreeBox);
}

QORTEST_EXPORT GVariant* g_variant_new_from_data(const GVariantType* pType, gconstpointer pData,
                                                 gsize size, gboolean trusted,
                                                 GDestroyNotify notify, gpointer data)
{
    static const auto next = QORTEST_NEXT(g_variant_new_from_data);
    return next(pType, pData, size, trusted, &FreeBox, NewBox(data, notify, notify));
}
