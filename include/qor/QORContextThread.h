// A thread that iterates a main context, for applications that have none.
#ifndef QOR_QORCONTEXTTHREAD_H
#define QOR_QORCONTEXTTHREAD_H

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <thread>

#include <qor/Export.h>
#include <qor/GlibTypes.h>

namespace qor
{

/// Iterates a main context of its own on a thread of its own, from the constructor to the
/// destructor. An endpoint that is created inside Run belongs to that context: its events,
/// observers and callbacks run on the thread.
///
/// The first call of GetControl, GetPolicyControl or TCCallbacksProxy::Instance creates the
/// process's client endpoint, so make this call inside Run.
class QOR_API TCContextThread
{
public:
    /// Starts the thread, and returns when the thread has the context.
    ///
    /// @throws std::system_error when no thread can be created, or no file descriptor is left
    TCContextThread();

    /// Ends the iteration and waits for the thread, and so for a function that is running on it.
    /// Nothing of the context runs afterwards; what is still queued in it is dropped. Not on the
    /// thread itself, and not while another one is in Run. In a forked child it does nothing.
    ~TCContextThread();

    TCContextThread(const TCContextThread&) = delete;
    TCContextThread& operator=(const TCContextThread&) = delete;

    /// Runs a function on the thread, where the context is the thread's default, and waits until it
    /// has returned. Called on the thread itself, it runs the function at once. Any thread. The
    /// caller must hold no lock that the function, or a callback that is running on the thread,
    /// takes. An exception of the function is passed on to the caller. In a forked child it does
    /// nothing.
    void Run(const std::function<void()>& function);

    /// The context, for example for IDbusClient::CallAsync. Valid as long as this object exists.
    GMainContext* Context() const;

private:
    void m_Iterate();

    const pid_t m_process; // that has the thread
    TGlibPtr<GMainContext> m_pContext;
    std::atomic<bool> m_isEnding;
    std::thread m_thread; // the last one: it uses the others
};

} // namespace qor

#endif
