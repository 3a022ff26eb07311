// A thread that iterates a main context, for applications that have none.
#include <qor/QORContextThread.h>

#include <unistd.h>

#include <cerrno>
#include <future>
#include <memory>
#include <system_error>

#include <gio/gio.h>

#include "QORBusConnection.h"
#include "QORDbusContext.h"
#include "QORFork.h"

namespace qor
{

namespace
{

using TTask = std::packaged_task<void()>;

constexpr int LAST_TURNS = 64;

int RunTask(void* pTask)
{
    const std::unique_ptr<TTask> task(static_cast<TTask*>(pTask));
    (*task)();
    return G_SOURCE_REMOVE;
}

TGlibPtr<GMainContext> NewContext()
{
    if (!HasFreeDescriptors(nullptr))
    {
        throw std::system_error(EMFILE, std::generic_category());
    }
    return TGlibPtr<GMainContext>(g_main_context_new());
}

} // namespace

TCContextThread::TCContextThread()
    : m_process(getpid()), m_pContext(NewContext()), m_isEnding(false)
{
    const auto isOwned = std::make_shared<std::promise<void>>(); // the thread may leave it last
    m_thread = std::thread(
        [this, isOwned]
        {
            g_main_context_acquire(m_pContext.get());
            isOwned->set_value();
            m_Iterate();
            g_main_context_release(m_pContext.get());
        });
    isOwned->get_future().wait();
}

TCContextThread::~TCContextThread()
{
    if (m_process != getpid())
    {
        MakeAnew(m_thread);
        MakeAnew(m_pContext);
        return;
    }
    m_isEnding = true;
    g_main_context_wakeup(m_pContext.get());
    m_thread.join();
}

// A wake-up is remembered; the end of a main loop that does not run yet would not be.
void TCContextThread::m_Iterate()
{
    const TCThreadDefaultContext context(m_pContext.get());
    while (!m_isEnding)
    {
        g_main_context_iteration(m_pContext.get(), TRUE);
    }
    // GLib frees objects that have ended in the context only while it is iterated. The number of
    // iterations is limited, because an endpoint that lives on may have steady traffic.
    for (int turns = 0; turns < LAST_TURNS && g_main_context_iteration(m_pContext.get(), FALSE);)
    {
        ++turns;
    }
}

void TCContextThread::Run(const std::function<void()>& function)
{
    if (m_process != getpid())
    {
        return;
    }
    auto task = std::make_unique<TTask>(function);
    std::future<void> isDone = task->get_future();
    // At once on the thread that owns the context; no other can own it.
    g_main_context_invoke(m_pContext.get(), &RunTask, task.release());
    isDone.get();
}

GMainContext* TCContextThread::Context() const
{
    return m_pContext.get();
}

} // namespace qor
