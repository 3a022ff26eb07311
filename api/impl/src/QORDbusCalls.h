// Our own calls on a connection, and their answers.
#ifndef QOR_QORDBUSCALLS_H
#define QOR_QORDBUSCALLS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <unordered_map>

#include <gio/gio.h>

#include <qor/GlibTypes.h>
#include <qor/Mutex.h>
#include <qor/SendResult.h>

namespace qor
{

// GDBus's worker shows each message to the filter before it writes it, so before there can be an
// answer. A call stays in a list of unsent calls until the filter sees it, and its answer is
// awaited from then on. An answer counts only if it comes from the receiver of the call, as far as
// its unique name is known, or from the bus itself.
class TCDbusCalls
{
public:
    // Takes an answer on the worker thread, so it only hands it on. No lock is held.
    using TAnswerHandler = std::function<void(GDBusMessage*)>;

    explicit TCDbusCalls(GDBusConnection* pConnection);
    ~TCDbusCalls();

    TCDbusCalls(const TCDbusCalls&) = delete;
    TCDbusCalls& operator=(const TCDbusCalls&) = delete;

    // Sends a call; its answer goes to the handler instead of to GDBus. Any thread. Returns the
    // serial of the call, which is the message's own if it has one, or 0 with an error.
    std::uint32_t Call(GDBusMessage* pCall, const TAnswerHandler& handler, GError** ppError)
        QOR_EXCLUDES(m_mutex);
    // Ignores an answer that comes from now on.
    void Forget(std::uint32_t serial) QOR_EXCLUDES(m_mutex);
    // The bytes of calls that GDBus has not written yet. They pile up if the bus does not read.
    std::size_t UnsentBytes() QOR_EXCLUDES(m_mutex);

    // Sends a call and waits on this thread, without a main context. Returns the answer, perhaps an
    // error reply; or null with an error when the deadline (monotonic time in microseconds) has
    // passed, the connection has closed, or the caller has cancelled.
    TGlibPtr<GDBusMessage> CallAndWait(GDBusMessage* pCall, std::int64_t deadline,
                                       const TCCancellation& cancellation, GError** ppError)
        QOR_EXCLUDES(m_mutex);
    // Whether the bus itself answers a call in time; then it has read all that was written before.
    bool IsAnsweredByBus(const char* method, GVariant* pBody, std::int64_t limitUs)
        QOR_EXCLUDES(m_mutex);
    // Whether a call must not wait any longer; then with the error above. A waiting thread checks
    // this at each interval, because nothing wakes it up when the connection closes or the caller
    // cancels.
    static constexpr unsigned int CHECK_INTERVAL_MS = 100;
    bool IsOver(std::int64_t deadline, const TCCancellation& cancellation, GError** ppError) const;

    // For the filter, on the worker thread: a message is about to be written; and whether a reply
    // answers a call of ours.
    void NoteSent(GDBusMessage* pMessage) QOR_EXCLUDES(m_mutex);
    bool TakeAnswer(GDBusMessage* pMessage) QOR_EXCLUDES(m_mutex);

private:
    struct TSCall;
    using TCallPtr = std::shared_ptr<TSCall>;

    std::uint32_t m_Send(const TCallPtr& call, GDBusMessage* pMessage, GError** ppError)
        QOR_EXCLUDES(m_mutex);
    void m_Drop(const TCallPtr& dropped) QOR_REQUIRES(m_mutex);
    template <class TPredicate>
    TCallPtr m_DropUnsent(const TPredicate& isMeant) QOR_REQUIRES(m_mutex);

    GDBusConnection* const m_pConnection;
    TSPosixMutex m_mutex; // guards the content of the calls as well
    std::list<TCallPtr> m_unsent QOR_GUARDED_BY(m_mutex);
    std::size_t m_unsentBytes QOR_GUARDED_BY(m_mutex);
    std::unordered_map<std::uint32_t, TCallPtr> m_awaited QOR_GUARDED_BY(m_mutex); // by serial
};

} // namespace qor

#endif
