// Delivers events, within the slots that a bus has for them.
//
// A stock bus has 128 slots for calls of one connection that wait for a reply, and frees a slot
// when the reply has come or the callee has left; a timeout of the caller does not free it. So
// calls are counted as the bus counts them, and a client that does not answer costs one call for
// each type, not one for each event.
#ifndef QOR_QOREVENTDELIVERY_H
#define QOR_QOREVENTDELIVERY_H

#include <atomic>
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
#include "QORLocks.h"

namespace qor
{

class TCDbusPeers;
class TCDbusSession;

// The functions of the first group may be called on any thread, and only one of them waits. They
// post work to an inbox. Only one thread at a time has the turn and does this work: a thread that
// waits for its event, or the loop thread. So work in a turn needs no lock.
class TCEventDelivery
{
public:
    using TCalls = TCDbusServer::TSAsyncMessage::TList;
    using TAccountPtr = boost::shared_ptr<TSEventAccount>;

    // The news for the main context.
    struct TSNews
    {
        std::vector<TSEventPtr> m_done; // events for it that have ended, in the order of their ends
        std::vector<std::string> m_gone; // clients that have left, as a call has shown
        // Clients that have answered late and can be called again, for these types.
        std::vector<std::pair<std::string, int>> m_resumed;
        bool m_isIdle = false; // finishing, and no event is under way
    };

    // Calls onNews in a turn when TakeNews has news; once until they are taken.
    TCEventDelivery(GMainContext* pContext, TCDbusSession& session, TCDbusPeers& peers,
                    std::function<void()> onNews);
    // Call it after the loop has ended and the session, whose calls come back here, is gone.
    ~TCEventDelivery();

    TCEventDelivery(const TCEventDelivery&) = delete;
    TCEventDelivery& operator=(const TCEventDelivery&) = delete;

    TAccountPtr AddClient(const std::string& name);
    // The client has said Hello anew: it may be called again. If it has too many calls open, it
    // gets one event of each type without being asked for an answer.
    void RenewClient(const TAccountPtr& pAccount);
    void RemoveClient(const TAccountPtr& pAccount);
    // Stores an outcome for each call, the last one within two timeouts, and then calls the event's
    // function in a turn.
    void Deliver(const TSEventPtr& pEvent, TCalls calls);
    // The same, but returns when the event has ended. This thread takes turns meanwhile.
    void DeliverAndWait(const TSEventPtr& pEvent, TCalls calls) QOR_EXCLUDES(m_inboxMutex);
    // Ends all events that are under way, as after their timeouts.
    void Cancel();
    // Reports when no event is under way any more. Cancels events that come from now on.
    void Finish();
    // Puts the end of this event into the news for the main context.
    void TellDone(const TSEventPtr& pEvent) QOR_EXCLUDES(m_inboxMutex);
    TSNews TakeNews() QOR_EXCLUDES(m_inboxMutex);

private:
    using TCall = TCalls::iterator;
    using TInbox = std::vector<std::function<void()>>;
    // The facts of an answer that are kept; not its bytes, because the client chooses how many.
    struct TSAnswer
    {
        bool m_isError = false;
        int m_code = 0;           // of an error
        bool m_isNobody = false;  // an error: the bus knows nobody by the name
        bool m_isLeaving = false; // an error: the bus has seen the client leave
        bool m_isEmpty = false;   // no value at all
        bool m_isReadable = true; // a value that is a reply envelope
        bool m_result = false;
    };

    static int m_Dispatch(GSource* pSource, int (*callback)(void*), void* pDelivery);
    void m_Post(std::function<void()> work) QOR_EXCLUDES(m_inboxMutex);
    void m_Wake(bool isAwaited) QOR_EXCLUDES(m_inboxMutex);
    bool m_WaitForTurn(const TSEvent& event) QOR_EXCLUDES(m_inboxMutex);
    void m_EndWait(TSEvent& event) QOR_EXCLUDES(m_inboxMutex);
    void m_Work(const TSEvent* pOwn) QOR_EXCLUDES(m_inboxMutex);
    bool m_BeginTurn(TInbox& inbox) QOR_EXCLUDES(m_inboxMutex);
    bool m_EndTurn(TInbox& inbox, const TSEvent* pOwn) QOR_EXCLUDES(m_inboxMutex);
    void m_Tell(const std::function<void(TSNews&)>& tell) QOR_EXCLUDES(m_inboxMutex);

    void m_SetUser(const TAccountPtr& pAccount, std::uint32_t userId);
    void m_Remove(const TAccountPtr& pAccount);

    void m_Enqueue(const TSEventPtr& pEvent, TCalls& calls);
    void m_SetDeadline(TCall call);
    void m_StartCalls();
    bool m_HasRoom(const TSEventUser& user) const;
    bool m_HasRoomToSend(const TSEvent& event);
    bool m_StartNext(TSEventUser& user);
    void m_Start(TSEventUser& user, TCall call);
    TGlibPtr<GDBusMessage> m_NewMessage(const TCDbusServer::TSAsyncMessage& call) const;
    void m_EndUnstartable();
    void m_EndUnstartable(TSEventUser& user);
    bool m_SendUnconfirmed(const TCDbusServer::TSAsyncMessage& call);
    bool m_Expire();
    void m_Suspend(TCDbusServer::TSAsyncMessage& call);
    void m_CancelAll();
    void m_CheckConnection();
    void m_CheckIdle();

    static TSAnswer m_Read(GDBusMessage* pMessage);
    static bool m_Judge(const TSAnswer& answer, const char* name);
    void m_Answered(std::uint32_t serial, const TSAnswer& answer);
    void m_Fail(TCall call, EDelivery outcome, int code);
    void m_Store(TCall call, EDelivery outcome, int code = 0);
    bool m_End(TCall call);

    TCDbusSession& m_session;
    TCDbusPeers& m_peers;
    std::function<void()> m_onNews;
    TGlibPtr<GSource> m_pSource;

    std::atomic<bool> m_isCalled; // the loop thread has to take a turn

    TSPosixMutex m_inboxMutex; // guards when the source is due as well
    TCCondition m_changed;     // an event that a thread waits for has ended, or there is work
    TInbox m_inbox QOR_GUARDED_BY(m_inboxMutex);
    bool m_isWorking QOR_GUARDED_BY(m_inboxMutex);        // a thread has the turn
    std::size_t m_waiting QOR_GUARDED_BY(m_inboxMutex);   // threads that take turns
    std::int64_t m_wakeTime QOR_GUARDED_BY(m_inboxMutex); // of the loop thread, monotonic
    TSNews m_news QOR_GUARDED_BY(m_inboxMutex);
    bool m_hasNews QOR_GUARDED_BY(m_inboxMutex);

    std::map<std::uint32_t, std::shared_ptr<TSEventUser>> m_users;
    std::shared_ptr<TSEventUser> m_pUnknown; // of clients whose user the bus has not told yet
    TCalls m_started;                        // until answered
    std::unordered_map<std::uint32_t, TCall> m_bySerial;
    TCDbusServer::TSAsyncMessage::TDeadlines m_deadlines; // of all calls without an outcome
    std::size_t m_overdue;                                // started calls whose timeout is over
    bool m_isHeldUp;    // a call waits until the bus has read others
    bool m_isFinishing; // no event begins any more
    bool m_isIdleTold;
};

} // namespace qor

#endif
