// The doorman of an endpoint's connection: a filter that sees every message before GDBus queues it.
//
// GDBus reads whatever the bus brings and queues it for the main context without limit. The doorman
// lets a sender's calls to our object pass up to its share, answers the rest at once, and picks up
// the answers to calls that were sent through it.
#ifndef QOR_QORDBUSFILTER_H
#define QOR_QORDBUSFILTER_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include <gio/gio.h>

#include <qor/GlibTypes.h>

namespace qor
{

// The host may share the connection, so the filter sees foreign traffic too and lets it pass
// untouched. It runs on GDBus's worker thread, which must not wait: nothing is waited for under the
// locks that it takes.
class TCDbusFilter
{
public:
    // Takes an answer on the worker thread: with the mutex held, so it only hands it on.
    using TAnswerHandler = std::function<void(GDBusMessage*)>;

    // Watches the connection from here on. Calls to the path are subject to the sender's share.
    // The context must be the caller's alone; it may be the one that the connection was made in.
    TCDbusFilter(TGlibPtr<GDBusConnection> pConnection, TGlibPtr<GMainContext> pContext,
                 const char* objectPath);
    // When it returns, the worker thread has left the filter for good.
    ~TCDbusFilter();

    TCDbusFilter(const TCDbusFilter&) = delete;
    TCDbusFilter& operator=(const TCDbusFilter&) = delete;

    GDBusConnection* Connection() const
    {
        return m_pConnection.get();
    }
    bool IsClosed() const;

    // Stops refusing calls: the path may belong to another endpoint from now on.
    void StopAdmission();

    // Sends a call; its answer goes to the handler, in place of GDBus. Any thread. The serial of
    // the call, or 0 with an error.
    std::uint32_t Call(GDBusMessage* pCall, const TAnswerHandler& handler, GError** ppError);
    // When it returns, the handler does not run and will not run any more.
    void Forget(std::uint32_t serial);
    // The bytes of such calls that GDBus has yet to write. They pile up where the bus does not read
    // on.
    std::size_t UnsentBytes() const;

    // Sends a call and waits on this thread, without a main context. A message, perhaps an error
    // reply, or null with an error: the timeout, or a connection that closes.
    TGlibPtr<GDBusMessage> CallAndWait(GDBusMessage* pCall, int timeoutMs, GError** ppError);

private:
    // A call that waits in the main context, or that is being handled. It counts until its message
    // is gone, whichever way that comes about.
    struct TSHeldCall
    {
        TSHeldCall(GDBusMessage* pMessage, std::size_t size);
        ~TSHeldCall();
        TSHeldCall(const TSHeldCall&) = delete;
        TSHeldCall& operator=(const TSHeldCall&) = delete;

        bool IsGone();

        GWeakRef m_message;
        std::size_t m_size;
    };
    struct TSSender
    {
        std::deque<TSHeldCall> m_calls;
        std::size_t m_bytes = 0;
        gint64 m_lastRefusal = 0; // monotonic time; 0: never
    };
    struct TSWaiter;
    struct TSAwaited
    {
        TAnswerHandler m_handler;            // either this
        std::shared_ptr<TSWaiter> m_pWaiter; // or this
    };

    static GDBusMessage* m_Filter(GDBusConnection* pConnection, GDBusMessage* pMessage,
                                  int isIncoming, void* pFilter);
    static void m_HasLeft(void* pFilter);
    static std::size_t m_SizeOf(GDBusMessage* pMessage);

    std::uint32_t m_Send(GDBusMessage* pCall, TSAwaited awaited, GError** ppError);
    bool m_IsSent(std::uint32_t serial) const;
    void m_NoteSent(GDBusMessage* pMessage);
    bool m_TakeAnswer(GDBusMessage* pMessage);
    bool m_HandOver(std::uint32_t serial, GDBusMessage* pMessage);
    TSAwaited m_EndAwaiting(std::uint32_t serial);
    bool m_Admit(GDBusMessage* pCall);
    const char* m_Objection(GDBusMessage* pCall, const TSSender& sender, std::size_t size);
    bool m_IsFull(std::size_t size) const;
    void m_Refuse(GDBusMessage* pCall, const char* reason);
    TSSender& m_Sender(const char* name);
    void m_Settle(TSSender& sender);
    void m_SettleAll();
    void m_DropQuietSenders();

    TGlibPtr<GDBusConnection> m_pConnection;
    std::string m_objectPath;
    // The thread's default while the filter is added: GLib posts its last word about it there.
    TGlibPtr<GMainContext> m_pContext;
    unsigned int m_id;
    bool m_hasLeft; // only on the thread that destroys the filter

    // Held while a call is sent, until it is awaited; m_mutex is taken inside.
    pthread_mutex_t m_sendMutex;

    pthread_mutex_t m_sentMutex;                                // guards these two, alone
    std::uint32_t m_lastSent;                                   // serial
    std::deque<std::pair<std::uint32_t, std::size_t>> m_unsent; // serials and sizes of calls
    std::atomic<std::size_t> m_unsentBytes;

    pthread_mutex_t m_mutex; // guards everything below
    bool m_admits;
    std::unordered_map<std::uint32_t, TSAwaited> m_awaited; // by serial
    std::map<std::string, TSSender> m_senders;              // by unique name
    std::size_t m_sendersWhenSettled;
    std::size_t m_calls; // of all senders
    std::size_t m_bytes;
};

} // namespace qor

#endif
