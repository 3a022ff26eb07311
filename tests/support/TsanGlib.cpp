// What GLib promises, told to the thread sanitizer.
//
// GLib is not built with the sanitizer, so the order that it guarantees is invisible: that a source
// is posted before it is dispatched, that user data is handed over before its handlers see it, that
// a handler has returned before its user data is freed, and that a buffer is filled before it is
// freed. Each of the functions below marks exactly one such edge, on an object of its own, and
// passes the call on. What the code under test must order itself is not touched.
#include <dlfcn.h>

#include <gio/gio.h>

extern "C" void __tsan_acquire(void* pAddress);
extern "C" void __tsan_release(void* pAddress);

#define QORTEST_EXPORT extern "C" __attribute__((visibility("default")))

namespace
{

template <class T>
T* Next(T* /* the function that stands before it */, const char* name)
{
    return reinterpret_cast<T*>(dlsym(RTLD_NEXT, name));
}

// Enters and leaves a handler: what came before is seen, and the next one sees this.
class Edge
{
public:
    explicit Edge(void* p) : m_p(p)
    {
        __tsan_acquire(m_p);
    }
    ~Edge()
    {
        __tsan_release(m_p);
    }

    Edge(const Edge&) = delete;
    Edge& operator=(const Edge&) = delete;

private:
    void* m_p;
};

// --- Sources -------------------------------------------------------------------------------------

struct Source
{
    GSourceFunc function;
    gpointer data;
    GDestroyNotify notify;
};

Source* NewSource(GSourceFunc function, gpointer data, GDestroyNotify notify)
{
    Source* const pSource = new Source{function, data, notify};
    __tsan_release(pSource);
    return pSource;
}

gboolean RunSource(gpointer p)
{
    Source* const pSource = static_cast<Source*>(p);
    const Edge edge(pSource);
    return pSource->function(pSource->data);
}

void FreeSource(gpointer p)
{
    Source* const pSource = static_cast<Source*>(p);
    __tsan_acquire(pSource);
    if (pSource->notify != nullptr)
    {
        pSource->notify(pSource->data);
    }
    delete pSource;
}

// --- Names ---------------------------------------------------------------------------------------

struct Name
{
    GBusNameAppearedCallback appeared;
    GBusNameVanishedCallback vanished; // or acquired
    GBusNameLostCallback lost;
    gpointer data;
    GDestroyNotify notify;
};

void RunAppeared(GDBusConnection* pConnection, const gchar* name, const gchar* owner, gpointer p)
{
    Name* const pName = static_cast<Name*>(p);
    const Edge edge(pName);
    pName->appeared(pConnection, name, owner, pName->data);
}

void RunVanished(GDBusConnection* pConnection, const gchar* name, gpointer p)
{
    Name* const pName = static_cast<Name*>(p);
    const Edge edge(pName);
    pName->vanished(pConnection, name, pName->data);
}

void RunLost(GDBusConnection* pConnection, const gchar* name, gpointer p)
{
    Name* const pName = static_cast<Name*>(p);
    const Edge edge(pName);
    pName->lost(pConnection, name, pName->data);
}

void FreeName(gpointer p)
{
    Name* const pName = static_cast<Name*>(p);
    __tsan_acquire(pName);
    if (pName->notify != nullptr)
    {
        pName->notify(pName->data);
    }
    delete pName;
}

// --- Exported objects ----------------------------------------------------------------------------

struct Object
{
    const GDBusInterfaceVTable* pVtable;
    gpointer data;
    GDestroyNotify notify;
};

void RunMethod(GDBusConnection* pConnection, const gchar* sender, const gchar* path,
               const gchar* interfaceName, const gchar* method, GVariant* pParameters,
               GDBusMethodInvocation* pInvocation, gpointer p)
{
    Object* const pObject = static_cast<Object*>(p);
    const Edge edge(pObject);
    pObject->pVtable->method_call(pConnection, sender, path, interfaceName, method, pParameters,
                                  pInvocation, pObject->data);
}

void FreeObject(gpointer p)
{
    Object* const pObject = static_cast<Object*>(p);
    __tsan_acquire(pObject);
    if (pObject->notify != nullptr)
    {
        pObject->notify(pObject->data);
    }
    delete pObject;
}

const GDBusInterfaceVTable OBJECT_VTABLE = {&RunMethod, nullptr, nullptr, {nullptr}};

// --- Message filters -----------------------------------------------------------------------------

struct Filter
{
    GDBusMessageFilterFunction function;
    gpointer data;
    GDestroyNotify notify;
};

GDBusMessage* RunFilter(GDBusConnection* pConnection, GDBusMessage* pMessage, gboolean isIncoming,
                        gpointer p)
{
    Filter* const pFilter = static_cast<Filter*>(p);
    const Edge edge(pFilter);
    return pFilter->function(pConnection, pMessage, isIncoming, pFilter->data);
}

void FreeFilter(gpointer p)
{
    Filter* const pFilter = static_cast<Filter*>(p);
    __tsan_acquire(pFilter);
    if (pFilter->notify != nullptr)
    {
        pFilter->notify(pFilter->data);
    }
    delete pFilter;
}

// --- Completions ---------------------------------------------------------------------------------

struct Completion
{
    GAsyncReadyCallback callback;
    gpointer data;
};

Completion* NewCompletion(GAsyncReadyCallback callback, gpointer data)
{
    Completion* const pCompletion = new Completion{callback, data};
    __tsan_release(pCompletion);
    return pCompletion;
}

void RunCompletion(GObject* pSource, GAsyncResult* pResult, gpointer p)
{
    Completion* const pCompletion = static_cast<Completion*>(p);
    __tsan_acquire(pCompletion);
    pCompletion->callback(pSource, pResult, pCompletion->data);
    delete pCompletion;
}

// --- Buffers -------------------------------------------------------------------------------------

struct Buffer
{
    gpointer data;
    GDestroyNotify notify;
};

Buffer* NewBuffer(gpointer data, GDestroyNotify notify)
{
    Buffer* const pBuffer = new Buffer{data, notify};
    __tsan_release(pBuffer);
    return pBuffer;
}

void FreeBuffer(gpointer p)
{
    Buffer* const pBuffer = static_cast<Buffer*>(p);
    __tsan_acquire(pBuffer);
    pBuffer->notify(pBuffer->data);
    delete pBuffer;
}

} // namespace

QORTEST_EXPORT void g_main_context_invoke_full(GMainContext* pContext, gint priority,
                                               GSourceFunc function, gpointer data,
                                               GDestroyNotify notify)
{
    static const auto next = Next(&g_main_context_invoke_full, "g_main_context_invoke_full");
    next(pContext, priority, &RunSource, NewSource(function, data, notify), &FreeSource);
}

QORTEST_EXPORT void g_main_context_invoke(GMainContext* pContext, GSourceFunc function,
                                          gpointer data)
{
    g_main_context_invoke_full(pContext, G_PRIORITY_DEFAULT, function, data, nullptr);
}

QORTEST_EXPORT guint g_bus_watch_name_on_connection(GDBusConnection* pConnection, const gchar* name,
                                                    GBusNameWatcherFlags flags,
                                                    GBusNameAppearedCallback appeared,
                                                    GBusNameVanishedCallback vanished,
                                                    gpointer data, GDestroyNotify notify)
{
    static const auto next =
        Next(&g_bus_watch_name_on_connection, "g_bus_watch_name_on_connection");
    Name* const pName = new Name{appeared, vanished, nullptr, data, notify};
    __tsan_release(pName);
    return next(pConnection, name, flags, appeared != nullptr ? &RunAppeared : nullptr,
                vanished != nullptr ? &RunVanished : nullptr, pName, &FreeName);
}

QORTEST_EXPORT guint g_bus_own_name_on_connection(GDBusConnection* pConnection, const gchar* name,
                                                  GBusNameOwnerFlags flags,
                                                  GBusNameAcquiredCallback acquired,
                                                  GBusNameLostCallback lost, gpointer data,
                                                  GDestroyNotify notify)
{
    static const auto next = Next(&g_bus_own_name_on_connection, "g_bus_own_name_on_connection");
    Name* const pName = new Name{nullptr, acquired, lost, data, notify};
    __tsan_release(pName);
    return next(pConnection, name, flags, acquired != nullptr ? &RunVanished : nullptr,
                lost != nullptr ? &RunLost : nullptr, pName, &FreeName);
}

QORTEST_EXPORT guint g_dbus_connection_register_object(GDBusConnection* pConnection,
                                                       const gchar* path, GDBusInterfaceInfo* pInfo,
                                                       const GDBusInterfaceVTable* pVtable,
                                                       gpointer data, GDestroyNotify notify,
                                                       GError** ppError)
{
    static const auto next =
        Next(&g_dbus_connection_register_object, "g_dbus_connection_register_object");
    Object* const pObject = new Object{pVtable, data, notify};
    __tsan_release(pObject);
    const guint id = next(pConnection, path, pInfo, &OBJECT_VTABLE, pObject, &FreeObject, ppError);
    if (id == 0)
    {
        delete pObject; // GLib does not free the user data of an object that it refuses
    }
    return id;
}

QORTEST_EXPORT guint g_dbus_connection_add_filter(GDBusConnection* pConnection,
                                                  GDBusMessageFilterFunction function,
                                                  gpointer data, GDestroyNotify notify)
{
    static const auto next = Next(&g_dbus_connection_add_filter, "g_dbus_connection_add_filter");
    Filter* const pFilter = new Filter{function, data, notify};
    __tsan_release(pFilter);
    return next(pConnection, &RunFilter, pFilter, &FreeFilter);
}

QORTEST_EXPORT void g_dbus_proxy_call(GDBusProxy* pProxy, const gchar* method,
                                      GVariant* pParameters, GDBusCallFlags flags, gint timeout,
                                      GCancellable* pCancellable, GAsyncReadyCallback callback,
                                      gpointer data)
{
    static const auto next = Next(&g_dbus_proxy_call, "g_dbus_proxy_call");
    if (callback == nullptr)
    {
        next(pProxy, method, pParameters, flags, timeout, pCancellable, nullptr, nullptr);
        return;
    }
    next(pProxy, method, pParameters, flags, timeout, pCancellable, &RunCompletion,
         NewCompletion(callback, data));
}

QORTEST_EXPORT GVariant* g_variant_new_from_data(const GVariantType* pType, gconstpointer pData,
                                                 gsize size, gboolean trusted,
                                                 GDestroyNotify notify, gpointer data)
{
    static const auto next = Next(&g_variant_new_from_data, "g_variant_new_from_data");
    if (notify == nullptr)
    {
        return next(pType, pData, size, trusted, nullptr, nullptr);
    }
    return next(pType, pData, size, trusted, &FreeBuffer, NewBuffer(data, notify));
}

QORTEST_EXPORT GBytes* g_bytes_new_with_free_func(gconstpointer pData, gsize size,
                                                  GDestroyNotify notify, gpointer data)
{
    static const auto next = Next(&g_bytes_new_with_free_func, "g_bytes_new_with_free_func");
    if (notify == nullptr)
    {
        return next(pData, size, nullptr, nullptr);
    }
    return next(pData, size, &FreeBuffer, NewBuffer(data, notify));
}
