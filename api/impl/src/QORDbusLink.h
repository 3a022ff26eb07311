// The counted link that GLib holds in place of an endpoint.
//
// GLib may still be about to call a handler when the endpoint goes away on another thread, so what
// it gets as user data is never the endpoint. A handler resolves the link and holds it while it
// runs; stopping severs the link and waits for the handler that is running.
#ifndef QOR_QORDBUSLINK_H
#define QOR_QORDBUSLINK_H

#include <pthread.h>
#include <sys/types.h>

#include <glib.h>

namespace qor
{

class TCDbus;

// Lives in a GLib reference-counted box and needs no destructor: GLib may release the last
// reference after this library has been unloaded, so nothing of ours can be called then.
struct TSDbusLink
{
    pthread_mutex_t m_mutex;
    pthread_cond_t m_changed;
    TCDbus* m_pEndpoint;    // null once severed
    unsigned int m_running; // more than one where a callback iterates the main context
    pthread_t m_runner;     // the thread of the running handlers: one context, so one at a time
    pid_t m_process;        // that created the endpoint
};

// How GLib gives back its reference: a function of GLib's own, for the same reason.
constexpr GDestroyNotify RELEASE_DBUS_LINK = &g_atomic_rc_box_release;

TSDbusLink* NewDbusLink(TCDbus* pEndpoint);

// From here on no handler finds the endpoint. Does not wait.
void SeverDbusLink(TSDbusLink* pLink);

// Waits for a running handler, unless it is the caller's own: a process that exits from inside a
// handler gets here too, and that handler never returns.
void WaitForDbusHandlers(TSDbusLink* pLink);

bool IsDbusLinkSevered(TSDbusLink* pLink);

// Whether the calling thread is inside a handler.
bool IsInDbusHandler(TSDbusLink* pLink);

// Holds the endpoint behind a handler's user data for as long as the handler runs.
class TCDbusLinkUse
{
public:
    explicit TCDbusLinkUse(void* pUserData);
    ~TCDbusLinkUse();

    TCDbusLinkUse(const TCDbusLinkUse&) = delete;
    TCDbusLinkUse& operator=(const TCDbusLinkUse&) = delete;

    // Null when there is no endpoint (any more).
    template <class TEndpoint>
    TEndpoint* Endpoint() const
    {
        return static_cast<TEndpoint*>(m_pEndpoint);
    }
    // Whether another handler of the endpoint is running: one that iterates the main context.
    bool IsNested() const
    {
        return m_isNested;
    }

private:
    TSDbusLink* m_pLink;
    TCDbus* m_pEndpoint;
    bool m_isNested;
};

} // namespace qor

#endif
