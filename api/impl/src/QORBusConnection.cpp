// Connections to the system bus.
#include "QORBusConnection.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <system_error>

#include <glib-unix.h>

#include "QORDbusContext.h"

namespace qor
{

namespace
{

// The most descriptors that a connection takes: the socket, and those that wake up its threads'
// contexts and calls.
constexpr int DESCRIPTORS_TO_CONNECT = 8;

// How often a connection that is being made is looked at: whether anybody still waits for it.
constexpr unsigned int CHECK_INTERVAL_MS = 50;

// A connection that is being made.
struct TSAttempt
{
    bool m_isOver = false;
    TGlibPtr<GDBusConnection> m_pConnection;
    GError** m_ppError = nullptr;
    std::int64_t m_deadline = 0;
    TCCancellation m_cancellation;
    GCancellable* const m_pCancellable = g_cancellable_new();

    TSAttempt() = default;
    ~TSAttempt()
    {
        g_object_unref(m_pCancellable);
    }
    TSAttempt(const TSAttempt&) = delete;
    TSAttempt& operator=(const TSAttempt&) = delete;

    static int Check(void* pAttempt)
    {
        const auto& attempt = *static_cast<TSAttempt*>(pAttempt);
        if (attempt.m_cancellation.IsCancelled() || g_get_monotonic_time() >= attempt.m_deadline)
        {
            g_cancellable_cancel(attempt.m_pCancellable);
        }
        return G_SOURCE_CONTINUE;
    }

    static void Finish(GObject* /*pSource*/, GAsyncResult* pResult, void* pAttempt)
    {
        auto& attempt = *static_cast<TSAttempt*>(pAttempt);
        attempt.m_pConnection.reset(
            g_dbus_connection_new_for_address_finish(pResult, attempt.m_ppError));
        attempt.m_isOver = true;
    }
};

// Cancels a blocking call that takes too long, from a thread that lives as long as the call.
class TCTimeLimit
{
public:
    explicit TCTimeLimit(int milliseconds) : m_pCancellable(g_cancellable_new())
    {
        const auto watch = [this, milliseconds]
        {
            if (m_isOver.get_future().wait_for(std::chrono::milliseconds(milliseconds)) ==
                std::future_status::timeout)
            {
                g_cancellable_cancel(m_pCancellable);
            }
        };
        try
        {
            m_watch = std::async(std::launch::async, watch);
        }
        catch (const std::system_error&)
        {
            // No thread is to be had, so the call has no limit.
        }
    }
    ~TCTimeLimit()
    {
        m_isOver.set_value();
        if (m_watch.valid())
        {
            m_watch.wait();
        }
        g_object_unref(m_pCancellable);
    }

    TCTimeLimit(const TCTimeLimit&) = delete;
    TCTimeLimit& operator=(const TCTimeLimit&) = delete;

    GCancellable* Cancellable() const
    {
        return m_pCancellable;
    }

private:
    GCancellable* const m_pCancellable;
    std::promise<void> m_isOver;
    std::future<void> m_watch;
};

// Names the time limit as the reason of a failed wait.
void NameTimeout(GError** ppError)
{
    if (g_error_matches(*ppError, G_IO_ERROR, G_IO_ERROR_CANCELLED))
    {
        g_clear_error(ppError);
        g_set_error_literal(ppError, G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "Timeout was reached");
    }
}

// The process that was first to ask for a connection, or 0.
std::atomic<pid_t> g_process{0};

} // namespace

bool IsForkedChild()
{
    const pid_t first = g_process;
    return first != 0 && first != getpid();
}

bool HasFreeDescriptors(GError** ppError)
{
    int descriptors[DESCRIPTORS_TO_CONNECT];
    bool areFree = true;
    for (int& descriptor : descriptors)
    {
        descriptor = areFree ? eventfd(0, EFD_CLOEXEC) : -1;
        areFree = descriptor >= 0;
    }
    for (const int descriptor : descriptors)
    {
        if (descriptor >= 0)
        {
            close(descriptor);
        }
    }
    if (!areFree)
    {
        g_set_error_literal(ppError, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES,
                            "No file descriptors are left");
    }
    return areFree;
}

TGlibPtr<GDBusConnection> BusConnection(GMainContext* pContext, GError** ppError)
{
    g_process = getpid();
    if (!HasFreeDescriptors(ppError))
    {
        return nullptr;
    }
    TGlibPtr<GDBusConnection> pConnection;
    {
        const TCTimeLimit limit(CONNECT_TIMEOUT_MS);
        pConnection.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, limit.Cancellable(), ppError));
    }
    NameTimeout(ppError);
    if (pConnection != nullptr && g_dbus_connection_is_closed(pConnection.get()))
    {
        return OwnBusConnection(pContext, NO_DEADLINE, TCCancellation(), ppError);
    }
    if (pConnection != nullptr)
    {
        // It would otherwise end the process when the bus goes away.
        g_dbus_connection_set_exit_on_close(pConnection.get(), FALSE);
    }
    return pConnection;
}

TGlibPtr<GDBusConnection> OwnBusConnection(GMainContext* pContext, std::int64_t deadline,
                                           const TCCancellation& cancellation, GError** ppError)
{
    char* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, ppError);
    if (address == nullptr)
    {
        return nullptr;
    }
    const TCThreadDefaultContext context(pContext);
    TSAttempt attempt;
    attempt.m_ppError = ppError;
    attempt.m_cancellation = cancellation;
    attempt.m_deadline =
        std::min(deadline, g_get_monotonic_time() + CONNECT_TIMEOUT_MS * G_TIME_SPAN_MILLISECOND);
    g_dbus_connection_new_for_address(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, attempt.m_pCancellable, &TSAttempt::Finish, &attempt);
    // A bus that accepts and never answers would be waited for without end.
    const TGlibPtr<GSource> pCheck(g_timeout_source_new(CHECK_INTERVAL_MS));
    g_source_set_callback(pCheck.get(), &TSAttempt::Check, &attempt, nullptr);
    g_source_attach(pCheck.get(), pContext);
    while (!attempt.m_isOver)
    {
        g_main_context_iteration(pContext, TRUE);
    }
    NameTimeout(ppError);
    g_source_destroy(pCheck.get());
    g_free(address);
    return std::move(attempt.m_pConnection);
}

TGlibPtr<GSource> NewHangUpSource(GDBusConnection* pConnection)
{
    GSocket* pSocket = g_socket_connection_get_socket(
        G_SOCKET_CONNECTION(g_dbus_connection_get_stream(pConnection)));
    return TGlibPtr<GSource>(g_unix_fd_source_new(g_socket_get_fd(pSocket),
                                                  static_cast<GIOCondition>(G_IO_HUP | G_IO_ERR)));
}

} // namespace qor
