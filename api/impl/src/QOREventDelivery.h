// Delivers events on the server's loop thread, within the slots that a bus has for them.
//
// A stock bus has 128 slots for calls of one connection that wait for a reply, and frees a slot
// when the reply has come or the callee has left; a timeout of the caller's does not free it. So
// calls are counted as the bus counts them, and a client that does not answer costs one call for
// each type, not one for each event.
#ifndef QOR_QOREVENTDELIVERY_H
#define QOR_QOREVENTDELIVERY_H

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <qor/Mutex.h>

#include "QOREventAccount.h"

namespace qor
{

class TCDbusSession;

// The functions of the first group may be called on any thread and do not wait; everything else
// happens on the loop thread and needs no lock.
class TCEventDelivery
{
public:
    using TMessages = std::list<TCDbusServer::TSAsyncMessage>;
    using TAccountPtr = boost::shared_ptr<TSEventAccount>;

    // Calls onGone on the loop thread when TakeGone has something to tell; once until it is taken.
    TCEventDelivery(GMainContext* pContext, TCDbusSession& session, std::function<void()> onGone);
    // After the loop has ended and the session is gone, whose calls come back here.
    ~TCEventDelivery();

    TCEventDelivery(const TCEventDelivery&) = delete;
    TCEventDelivery& operator=(const TCEventDelivery&) = delete;

    TAccountPtr AddClient(const std::string& name);
    // The client has said Hello anew: it may be called again.
    void RenewClient(const TAccountPtr& pAccount);
    void RemoveClient(const TAccountPtr& pAccount);
    // Stores an outcome in each message, the last one within two timeouts.
    void Deliver(TMessages& messages);
    // Stores a false outcome in all messages that have none, as after their timeout.
    void Cancel();
    // The clients of whom a call has shown that nobody has their name.
    std::vector<std::string> TakeGone();

private:
    using TCall = TSEventCall::TList::iterator;
    struct TSAnswer;

    static int m_Dispatch(GSource* pSource, int (*callback)(void*), void* pDelivery);
    void m_Post(std::function<void()> work);
    void m_Work();
    void m_SleepUntilNext();

    void m_AskForUser(const TAccountPtr& pAccount);
    void m_SetUser(const TAccountPtr& pAccount, std::uint32_t userId);
    void m_Remove(const TAccountPtr& pAccount);

    void m_Enqueue(const std::vector<TCDbusServer::TSAsyncMessage*>& messages);
    void m_SetDeadline(TCall call);
    void m_StartCalls();
    bool m_HasRoom(const TSEventUser& user) const;
    bool m_HasRoomToSend(const TSEventCall& call);
    bool m_StartNext(TSEventUser& user);
    void m_Start(TSEventUser& user, TCall call);
    void m_FailUnstartable();
    void m_FailUnstartable(TSEventUser& user);
    bool m_Expire();
    void m_Suspend(TSEventCall& call);
    void m_CheckConnection();

    static TSAnswer m_Read(GDBusMessage* pMessage);
    static bool m_Judge(const TSAnswer& answer, const char* name);
    void m_Answered(std::uint32_t serial, const TSAnswer& answer);
    void m_Fail(TCall call, int code);
    void m_Store(TCall call, bool outcome);
    void m_End(TCall call);

    TCDbusSession& m_session;
    std::function<void()> m_onGone;
    TGlibPtr<GSource> m_pSource;

    TSPosixMutex m_inboxMutex; // guards when the source is due as well
    std::vector<std::function<void()>> m_inbox QOR_GUARDED_BY(m_inboxMutex);
    std::vector<std::string> m_gone QOR_GUARDED_BY(m_inboxMutex);

    std::map<std::uint32_t, std::shared_ptr<TSEventUser>> m_users;
    std::shared_ptr<TSEventUser> m_pUnknown; // of clients whose user the bus has not told yet
    TSEventCall::TList m_started;            // until answered
    std::unordered_map<std::uint32_t, TCall> m_bySerial;
    TSEventCall::TDeadlines m_deadlines; // of all calls without an outcome
    std::size_t m_overdue;               // started calls whose timeout is over
    bool m_isHeldUp;                     // a call waits until the bus has read others
};

} // namespace qor

#endif
