// Main contexts: one as the thread's default for a while, and a timer in one.
#ifndef QOR_QORDBUSCONTEXT_H
#define QOR_QORDBUSCONTEXT_H

#include <glib.h>

#include <qor/GlibTypes.h>

namespace qor
{

// GDBus reports to the context that is the thread's default at the call. The context must not be
// iterated by another thread.
class TCThreadDefaultContext
{
public:
    explicit TCThreadDefaultContext(GMainContext* pContext) : m_pContext(pContext)
    {
        g_main_context_push_thread_default(m_pContext);
    }
    ~TCThreadDefaultContext()
    {
        g_main_context_pop_thread_default(m_pContext);
    }

    TCThreadDefaultContext(const TCThreadDefaultContext&) = delete;
    TCThreadDefaultContext& operator=(const TCThreadDefaultContext&) = delete;

private:
    GMainContext* m_pContext;
};

// Calls a function in a main context each time that it has been set and is due. Any thread may set
// and stop it.
class TCDbusTimer
{
public:
    // The function releases the user data when it is no longer used.
    TCDbusTimer(GMainContext* pContext, GSourceFunc function, void* pUserData,
                GDestroyNotify release);
    ~TCDbusTimer();

    TCDbusTimer(const TCDbusTimer&) = delete;
    TCDbusTimer& operator=(const TCDbusTimer&) = delete;

    // Replaces an earlier time.
    void SetIn(unsigned int milliseconds);
    void Clear();
    // Stops the timer for good.
    void Stop();

private:
    TGlibPtr<GSource> m_pSource;
};

} // namespace qor

#endif
