// Makes a main context the thread's default for a while.
#ifndef QOR_QORDBUSCONTEXT_H
#define QOR_QORDBUSCONTEXT_H

#include <glib.h>

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

} // namespace qor

#endif
