// The asynchronous calls of an endpoint that have no result yet.
//
// The worker thread hands an answer to the call's mailbox and wakes up the main context that the
// caller has chosen; all else happens there. While a call waits, a timer in it checks what nothing
// reports: the deadline, a connection that has closed, a caller that has cancelled. GLib and the
// worker hold only a link and a mailbox, so a call may end at any moment.
#ifndef QOR_QORDBUSPENDING_H
#define QOR_QORDBUSPENDING_H

#include <cstdint>
#include <functional>
#include <list>
#include <memory>

#include <boost/shared_ptr.hpp>

#include <gio/gio.h>

#include <qor/GlibTypes.h>
#include <qor/Mutex.h>
#include <qor/SendResult.h>

namespace qor
{

class TCDbusSession;

class TCDbusPending : public std::enable_shared_from_this<TCDbusPending>
{
public:
    // Takes an answer, perhaps an error reply, or null and an error. Runs once, in the main context
    // of its call, unless the end comes first.
    using TOutcome = std::function<void(GDBusMessage*, const GError*)>;

    // A call that is to be made. If there is no message to send, the error is the outcome.
    struct TSRequest
    {
        boost::shared_ptr<TCDbusSession> m_session;
        TGlibPtr<GDBusMessage> m_pMessage;
        TGlibPtr<GError> m_pError;
        std::int64_t m_deadline = 0; // monotonic time in microseconds
        TCCancellation m_cancellation;
        TGlibPtr<GMainContext> m_pContext;
        TOutcome m_onOutcome;
    };

    // Any thread; does not wait, and never calls by itself.
    void Start(TSRequest request) QOR_EXCLUDES(m_mutex);

    // After this no function is called: it waits for a function that is running on another thread.
    // To be called once, after the last start.
    void End() QOR_EXCLUDES(m_mutex);

private:
    struct TSCall;
    using TCallPtr = std::shared_ptr<TSCall>;

    static gboolean m_Look(void* pUserData);
    void m_Remove(const TCallPtr& call) QOR_EXCLUDES(m_mutex);

    TSPosixMutex m_mutex;
    std::list<TCallPtr> m_calls QOR_GUARDED_BY(m_mutex);
};

} // namespace qor

#endif
