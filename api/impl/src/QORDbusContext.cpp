// A timer in a main context.
#include "QORDbusContext.h"

#include <new>

namespace qor
{

namespace
{

constexpr gint64 NOT_DUE = -1;

// A source and its functions in one block. GLib looks at the functions when it releases the source,
// which may be after this library has been unloaded.
struct TSTimerSource
{
    GSource m_source; // first: GLib knows the block by it
    GSourceFuncs m_functions;
};

// The time is cleared first: the function may set the next one.
gboolean Dispatch(GSource* pSource, GSourceFunc function, gpointer pUserData)
{
    g_source_set_ready_time(pSource, NOT_DUE);
    function(pUserData);
    return G_SOURCE_CONTINUE;
}

} // namespace

TCDbusTimer::TCDbusTimer(GMainContext* pContext, GSourceFunc function, void* pUserData,
                         GDestroyNotify release)
{
    GSourceFuncs functions{nullptr, nullptr, &Dispatch, nullptr, nullptr, nullptr};
    m_pSource.reset(g_source_new(&functions, sizeof(TSTimerSource)));
    auto* pTimer = reinterpret_cast<TSTimerSource*>(m_pSource.get());
    pTimer->m_functions = functions;
    g_source_set_funcs(m_pSource.get(), &pTimer->m_functions);
    g_source_set_callback(m_pSource.get(), function, pUserData, release);
    g_source_attach(m_pSource.get(), pContext);
}

TCDbusTimer::~TCDbusTimer()
{
    Stop();
}

void TCDbusTimer::SetIn(unsigned int milliseconds)
{
    g_source_set_ready_time(m_pSource.get(),
                            g_get_monotonic_time() + milliseconds * G_TIME_SPAN_MILLISECOND);
}

void TCDbusTimer::Clear()
{
    g_source_set_ready_time(m_pSource.get(), NOT_DUE);
}

void TCDbusTimer::Stop()
{
    g_source_destroy(m_pSource.get());
}

} // namespace qor
