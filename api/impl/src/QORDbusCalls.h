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
// answer. A call waits in a list until it is seen going out, and is awaited from then on: what is
// in the list has not been sent. An answer counts only from whom the call was sent to, where that
// is known, or from the bus itself.
class TCDbusCalls
{
public:
    // Takes an answer on the worker thread, so it only hands it on. No lock is held.
    using TAnswerHandler = std::function<void(GDBusMessage*)>;

    explicit TCDbusCalls(GDBusConnection* pConnection);
    ~TCDbusCalls();

    TCDbusCalls(const TCDbusCalls&) = delete;
    TCDbusCalls& operator=(const TCDbusCalls&) = delete;

    // Sends a call; its answer goes to the handler, in place of GDBus. Any thread. The serial of
    // the call, which is the message's own where it has one, or 0 with an error.
    std::uint32_t Call(GDBusMessage* pCall, const TAnswerHandler& handler, GError** ppError)
        QOR_EXCLUDES(m_mutex);
    // An answer that comes from here on is not awaited any more.
    void Forget(std::uint32_t serial) QOR_EXCLUDES(m_mutex);
    // The bytes of calls that GDBus has yet to write. They pile up where the bus does not read on.
    std::size_t UnsentBytes() QOR_EXCLUDES(m_mutex);

    // Sends a call and waits on this thread, without a main context. A message, perhaps an error
    // reply, or null with an error: the deadline (monotonic time in microseconds), a connection
    // that closes, or a caller that has cancelled.
    TGlibPtr<GDBusMessage> CallAndWait(GDBusMessage* pCall, std::int64_t deadline,
                                       const TCCancellation& cancellation, GError** ppError)
        QOR_EXCLUDES(m_mutex);
    // Whether the bus itself answers a call in time, and so has read what was written before it.
    bool IsAnsweredByBus(const char* method, GVariant* pBody, std::int64_t limitUs)
        QOR_EXCLUDES(m_mutex);
    // Whether a call has waited long enough; then with the error above. Whoever waits looks each
    // time that this interval has passed: neither a connection that closes nor a caller that
    // cancels tells anybody.
    static constexpr unsigned int CHECK_INTERVAL_MS = 100;
    bool IsOver(std::int64_t deadline, const TCCancellation& cancellation, GError** ppError) const;

    // For the filter, on the worker thread: a message is about to be written; whether a reply is
    // the answer to a call of ours.
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
