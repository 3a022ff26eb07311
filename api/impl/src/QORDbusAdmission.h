// Admission control of an endpoint's object: which calls of others may be queued.
//
// GDBus reads whatever the bus brings and queues it for the main context without limit. So a
// sender's calls to our object pass up to its share, and the rest is answered at once.
#ifndef QOR_QORDBUSADMISSION_H
#define QOR_QORDBUSADMISSION_H

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include <gio/gio.h>

#include <qor/Mutex.h>

namespace qor
{

class TCDbusAdmission
{
public:
    TCDbusAdmission(GDBusConnection* pConnection, const char* objectPath);

    // Whether the call may pass; one that may not has been answered. On GDBus's worker thread.
    bool Admit(GDBusMessage* pCall) QOR_EXCLUDES(m_mutex);

    // Stops refusing calls: the path may belong to another endpoint from now on. Any thread.
    void Stop() QOR_EXCLUDES(m_mutex);

    // From here on every call is refused, since there is no service any more. Any thread.
    void Close() QOR_EXCLUDES(m_mutex);

    // Is told the name of a sender when its first call comes in, on the worker thread.
    using TOnSender = std::function<void(const char*)>;
    void TellSenders(TOnSender onSender) QOR_EXCLUDES(m_mutex);

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
        bool m_isTold = false;
    };

    const char* m_Objection(GDBusMessage* pCall, const TSSender& sender, std::size_t size)
        QOR_REQUIRES(m_mutex);
    void m_Add(TSSender& sender, GDBusMessage* pCall, std::size_t size) QOR_REQUIRES(m_mutex);
    bool m_IsFull(std::size_t size) const QOR_REQUIRES(m_mutex);
    void m_Refuse(GDBusMessage* pCall, const char* errorName, const char* reason);
    TSSender& m_Sender(const char* name) QOR_REQUIRES(m_mutex);
    void m_DropHandled(TSSender& sender) QOR_REQUIRES(m_mutex);
    void m_DropAllHandled() QOR_REQUIRES(m_mutex);
    void m_DropQuietSenders() QOR_REQUIRES(m_mutex);

    GDBusConnection* const m_pConnection;
    const std::string m_objectPath;
    TSPosixMutex m_mutex;
    bool m_admits QOR_GUARDED_BY(m_mutex);
    bool m_isClosed QOR_GUARDED_BY(m_mutex);
    TOnSender m_onSender QOR_GUARDED_BY(m_mutex);
    std::map<std::string, TSSender> m_senders QOR_GUARDED_BY(m_mutex); // by unique name
    std::size_t m_sendersAtNextSweep QOR_GUARDED_BY(m_mutex);
    std::size_t m_calls QOR_GUARDED_BY(m_mutex); // of all senders
    std::size_t m_bytes QOR_GUARDED_BY(m_mutex);
};

} // namespace qor

#endif
