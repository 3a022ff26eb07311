// The records of event delivery: events, calls, clients, and their users.
#ifndef QOR_QOREVENTACCOUNT_H
#define QOR_QOREVENTACCOUNT_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>

#include <gio/gio.h>

#include <qor/QORDbusServer.h>

namespace qor
{

// An event on its way. Its calls share one envelope.
struct TSEvent
{
    int m_type = 0;
    int m_timeout = -1;
    TGlibPtr<GVariant> m_pEnvelope;    // null where it is too large for a message
    TGlibPtr<GDBusMessage> m_pMessage; // its calls are copies of it
    std::vector<TSDelivery> m_deliveries;
    TCDbusServer::TEventDone m_onTold; // the service's function; for the main context
    // The members below are used only in turns of the delivery:
    std::size_t m_open = 0;   // calls without an outcome
    std::size_t m_errors = 0; // calls that have ended with an error
    std::function<void(const std::shared_ptr<TSEvent>&)> m_onDone;
    bool m_isOver = false; // for a thread that waits; under the mutex of the delivery's inbox
};
using TSEventPtr = std::shared_ptr<TSEvent>;

// An outgoing call: from when it is posted until it is answered, which may be long after its
// timeout. Like everything below, it is touched in the turns of the delivery only.
struct TCDbusServer::TSAsyncMessage
{
    using TList = std::list<TSAsyncMessage>;
    using TDeadlines = std::multimap<gint64, TList::iterator>;

    TSAsyncMessage(TSEventPtr pEvent, std::size_t index, GDBusProxy* pProxy,
                   boost::shared_ptr<TSEventAccount> pAccount)
        : m_pEvent(std::move(pEvent)),
          m_index(index),
          m_type(m_pEvent->m_type),
          m_pProxy(static_cast<GDBusProxy*>(g_object_ref(pProxy))),
          m_pAccount(std::move(pAccount))
    {
    }

    TSDelivery& Delivery() const
    {
        return m_pEvent->m_deliveries[m_index];
    }

    TSEventPtr m_pEvent; // null once its outcome is stored
    std::size_t m_index; // of its outcome there
    int m_type;
    TGlibPtr<GDBusProxy> m_pProxy;
    boost::shared_ptr<TSEventAccount> m_pAccount;
    std::uint32_t m_serial = 0; // 0 while it waits for a slot
    bool m_isOverdue = false;   // started, and its timeout is over
    TDeadlines::iterator m_deadline{};
};

// One user's clients together.
struct TSEventUser
{
    explicit TSEventUser(std::uint32_t id) : m_id(id) {}

    const std::uint32_t m_id;
    TCDbusServer::TSAsyncMessage::TList m_waiting;
    std::size_t m_unanswered = 0;
    std::size_t m_overdue = 0;
    bool m_isReported = false; // it was logged that its share is used up
};

// One client. Any thread may read m_isSuspended.
struct TSEventAccount
{
    explicit TSEventAccount(std::string name) : m_name(std::move(name)) {}

    // A call of that type has timed out; or has been answered, so that the client can be called
    // again.
    void Suspend(int type)
    {
        m_suspended.insert(type);
        m_isSuspended = true;
    }
    bool Resume(int type)
    {
        const bool isResumed = m_suspended.erase(type) != 0;
        m_isSuspended = !m_suspended.empty();
        return isResumed;
    }
    // It has said Hello anew.
    void ResumeAll()
    {
        m_suspended.clear();
        m_unconfirmed.clear();
        m_isSuspended = false;
    }

    const std::string m_name;
    std::shared_ptr<TSEventUser> m_pUser;
    std::size_t m_unanswered = 0; // calls that were started and have no answer
    std::size_t m_overdue = 0;    // those of them whose timeout is over
    std::set<int>
        m_suspended; // the types that it is not called for: one call of each is unanswered
    std::set<int> m_unconfirmed; // the types of events that were sent without asking for an answer
    std::atomic<bool> m_isSuspended{false}; // for any type
};

} // namespace qor

#endif
