// What the delivery of events keeps of calls, of the clients that are called, and of their users.
#ifndef QOR_QOREVENTACCOUNT_H
#define QOR_QOREVENTACCOUNT_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include <boost/shared_ptr.hpp>

#include <gio/gio.h>

#include <qor/QORDbusServer.h>

namespace qor
{

// One outgoing call. It belongs to the SendMessage that made it; the loop thread borrows it until
// it has stored the outcome.
struct TCDbusServer::TSAsyncMessage
{
    TSAsyncMessage(GDBusProxy* pProxy, boost::shared_ptr<TSEventAccount> pAccount, int type)
        : m_future(m_promise.get_future()),
          m_pProxy(static_cast<GDBusProxy*>(g_object_ref(pProxy))),
          m_pAccount(std::move(pAccount)),
          m_type(type),
          m_pParameters(nullptr),
          m_timeout(-1)
    {
    }

    std::promise<bool> m_promise;
    std::future<bool> m_future;
    TGlibPtr<GDBusProxy> m_pProxy;
    boost::shared_ptr<TSEventAccount> m_pAccount;
    int m_type;
    GVariant* m_pParameters; // all calls of an event share one envelope, which SendMessage owns
    int m_timeout;
};

// A call on its way: from when it is posted until it is answered, which may be long after its
// timeout. Like everything below, it is touched by the loop thread only.
struct TSEventCall
{
    using TList = std::list<TSEventCall>;
    using TDeadlines = std::multimap<gint64, TList::iterator>;

    TCDbusServer::TSAsyncMessage* m_pMessage; // null once its outcome is stored
    boost::shared_ptr<TSEventAccount> m_pAccount;
    int m_type;
    std::uint32_t m_serial; // 0 while it waits for a slot
    bool m_isOverdue;       // started, and its timeout is over
    TDeadlines::iterator m_deadline;
};

// One user's clients together.
struct TSEventUser
{
    explicit TSEventUser(std::uint32_t id) : m_id(id) {}

    const std::uint32_t m_id;
    TSEventCall::TList m_waiting;
    std::size_t m_unanswered = 0;
    std::size_t m_overdue = 0;
    bool m_isReported = false; // that its share is used up
};

// One client. Any thread may read m_isSuspended.
struct TSEventAccount
{
    explicit TSEventAccount(std::string name) : m_name(std::move(name)) {}

    // A call of that type has timed out; or its answer lets it be called again.
    void Suspend(int type)
    {
        m_suspended.insert(type);
        m_isSuspended = true;
    }
    void Resume(int type)
    {
        m_suspended.erase(type);
        m_isSuspended = !m_suspended.empty();
    }

    const std::string m_name;
    std::shared_ptr<TSEventUser> m_pUser;
    std::size_t m_unanswered = 0; // calls that were started and have no answer
    std::size_t m_overdue = 0;    // those of them whose timeout is over
    std::set<int> m_suspended; // the types that it is not called for: one call of each waits in it
    std::atomic<bool> m_isSuspended{false}; // for any of them
};

} // namespace qor

#endif
