// The counted link that GLib holds in place of an endpoint, or of a call that has no result yet.
//
// GLib may still be about to call a handler when its target goes away on another thread, so what
// it gets as user data is never the target. A handler resolves the link and holds it while it
// runs; stopping severs the link and waits for the handler that is running.
#ifndef QOR_QORDBUSLINK_H
#define QOR_QORDBUSLINK_H

#include <pthread.h>
#include <sys/types.h>

#include <functional>
#include <utility>

#include <gio/gio.h>

#include <qor/Mutex.h>

namespace qor
{

class TCDbus;

// Lives in a GLib reference-counted box and needs no destructor: GLib may release the last
// reference after this library has been unloaded, so none of its code can be called then.
struct TSDbusLink
{
    TSPosixMutex m_mutex;
    pthread_cond_t m_changed;
    void* m_pTarget QOR_GUARDED_BY(m_mutex);        // null once severed
    unsigned int m_running QOR_GUARDED_BY(m_mutex); // more than one if a callback iterates the
                                                    // main context
    pthread_t m_runner QOR_GUARDED_BY(m_mutex);     // the thread of the running handlers: one
                                                    // context, so one at a time
    pid_t m_process;                                // that created the target, or NO_PROCESS
};

// Of an endpoint that no process may use, since a forked child has made it.
constexpr pid_t NO_PROCESS = 0;

// GLib releases its reference with this function, which is GLib's own for the same reason.
constexpr GDestroyNotify RELEASE_DBUS_LINK = &g_atomic_rc_box_release;

TSDbusLink* NewDbusLink(void* pTarget);

// From now on no handler finds the target. Does not wait.
void SeverDbusLink(TSDbusLink* pLink);

// Waits for a running handler, unless this is called inside it: a process that exits in a handler
// gets here, too, and that handler never returns.
void WaitForDbusHandlers(TSDbusLink* pLink);

bool IsDbusLinkSevered(TSDbusLink* pLink);

// Whether the calling thread is inside a handler.
bool IsInDbusHandler(TSDbusLink* pLink);

// Every handler starts with it: it finds the target behind the user data, and holds it while the
// handler runs.
class TCDbusHold
{
public:
    explicit TCDbusHold(void* pUserData);
    ~TCDbusHold();

    TCDbusHold(const TCDbusHold&) = delete;
    TCDbusHold& operator=(const TCDbusHold&) = delete;

    // Null when there is no target (any more).
    void* Target() const
    {
        return m_pTarget;
    }
    // Whether another handler of the target is running: one that iterates the main context.
    bool IsNested() const
    {
        return m_isNested;
    }

private:
    TSDbusLink* m_pLink;
    void* m_pTarget;
    bool m_isNested;
};

// The same for an endpoint, whose work it runs.
class TCDbusEntry
{
public:
    explicit TCDbusEntry(void* pUserData) : m_hold(pUserData) {}

    // Null when there is no endpoint (any more).
    TCDbus* Endpoint() const
    {
        return static_cast<TCDbus*>(m_hold.Target());
    }
    bool IsNested() const
    {
        return m_hold.IsNested();
    }

    // Runs the work with the endpoint, if there is one: at once or, inside a callback that iterates
    // the main context, in its turn after the callback has returned. A call, which the work holds,
    // waits until it may be handled.
    template <class TEndpoint, class TWork>
    void Run(TWork work, GDBusMessage* pCall = nullptr) const
    {
        if (Endpoint() != nullptr)
        {
            m_Run([pEndpoint = static_cast<TEndpoint*>(Endpoint()), work = std::move(work)]
                  { work(*pEndpoint); },
                  pCall);
        }
    }

    // The function of a timer: runs a member of the endpoint.
    template <class TEndpoint, void (TEndpoint::*MEMBER)()>
    static gboolean RunMember(void* pUserData)
    {
        const TCDbusEntry entry(pUserData);
        entry.Run<TEndpoint>([](TEndpoint& endpoint) { (endpoint.*MEMBER)(); });
        return G_SOURCE_REMOVE;
    }

private:
    void m_Run(std::function<void()> work, GDBusMessage* pCall) const;

    TCDbusHold m_hold;
};

} // namespace qor

#endif
