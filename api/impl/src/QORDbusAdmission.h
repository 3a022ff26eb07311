// Admission control of an endpoint's object: which calls may be queued, and which may be handled.
//
// GDBus queues all incoming calls for the main context, and all answers for the bus, without limit.
// So a user's calls to our object pass only up to the user's share, and the rest is refused at
// once. A call is handled when it is known who sends it, and when there is room for its answer: the
// bus keeps answers until their receiver reads them, and stops reading from a process when it keeps
// too many of its messages.
#ifndef QOR_QORDBUSADMISSION_H
#define QOR_QORDBUSADMISSION_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gio/gio.h>

#include <qor/Mutex.h>

#include "QORDbusAccounts.h"

namespace qor
{

struct TSPeer;

class TCDbusAdmission
{
public:
    TCDbusAdmission(GDBusConnection* pConnection, const char* objectPath);

    // Whether the call may pass. If not, it has been answered, provided that its sender reads
    // answers. On GDBus's worker thread.
    bool Admit(GDBusMessage* pCall) QOR_EXCLUDES(m_mutex);
    // An answer is about to be written. On the same thread.
    void NoteAnswer(GDBusMessage* pAnswer) QOR_EXCLUDES(m_mutex);

    // Stops refusing calls: the path may belong to another endpoint from now on. Any thread.
    void Stop() QOR_EXCLUDES(m_mutex);

    // From now on every call is refused, because the service has ended. Any thread.
    void Close() QOR_EXCLUDES(m_mutex);

    // From now on all senders of a user share an account, and answers count until they are read.
    // The first function gets the name of a sender when its first call arrives; the second is
    // called when another call may be handled, or there is other work. Both on the worker thread,
    // without a lock.
    using TOnSender = std::function<void(const std::string&)>;
    using TOnNews = std::function<void()>;
    void Serve(TOnSender onSender, TOnNews onNews) QOR_EXCLUDES(m_mutex);

    // The bus has told who a sender is, or could not. Any thread.
    void SetPeer(const TSPeer& peer) QOR_EXCLUDES(m_mutex);

    // What the bus has told of the sender of an open call. False if it was not asked, or long ago.
    bool FindPeer(const std::string& name, TSPeer& peer) QOR_EXCLUDES(m_mutex);

    enum class EUser
    {
        FOUND,
        NOT_YET,   // the bus has not told yet
        OVER_LIMIT // the call has to be refused after all
    };
    // The account of a call that has passed, by which users take turns. All senders that the bus
    // does not describe have one account. On the main context's thread.
    EUser FindUser(GDBusMessage* pCall, std::string& user) QOR_EXCLUDES(m_mutex);
    // Refuses a call that has passed; it is not handled then.
    void RefuseLate(GDBusMessage* pCall) QOR_EXCLUDES(m_mutex);

    enum class ETurn
    {
        NOW,    // it counts as handled from now on
        LATER,  // other users may have their turn
        NOBODYS // no user's call: answers wait to be written
    };
    // Whether a call that has passed may be handled. On the main context's thread.
    ETurn MayHandle(GDBusMessage* pCall) QOR_EXCLUDES(m_mutex);

    // The sender that has to be asked whether it reads. Report its answer, or that the bus does not
    // know it, to the other function.
    std::vector<std::string> TakePings() QOR_EXCLUDES(m_mutex);
    void Pinged(const std::string& name, bool isGone) QOR_EXCLUDES(m_mutex);

    // Whether it is time to ask which senders are still on the bus; and the answer, the names that
    // were there at that time or later.
    bool TakeSweep() QOR_EXCLUDES(m_mutex);
    void Keep(const std::set<std::string>& names, gint64 time) QOR_EXCLUDES(m_mutex);

    // Calls that were refused. Any thread.
    std::uint64_t NumberOfRefused() QOR_EXCLUDES(m_mutex);

private:
    using TSender = TCDbusAccounts::TSSender;
    struct TSVerdict
    {
        const char* m_objection = nullptr; // none: it may pass
        const char* m_errorName = nullptr;
        bool m_isSilent = false; // it gets no answer
        bool m_isNewBurst = false;
        TOnSender m_onSender; // its name is to be told
    };

    void m_Judge(GDBusMessage* pCall, const char* name, bool isOurs, TSVerdict& verdict)
        QOR_REQUIRES(m_mutex);
    const char* m_Objection(GDBusMessage* pCall, TSender& sender, std::size_t size)
        QOR_REQUIRES(m_mutex);
    bool m_IsFull(std::size_t size) const QOR_REQUIRES(m_mutex);
    bool m_IsOneOfFew(const TSDbusAccount& account, std::size_t size) const QOR_REQUIRES(m_mutex);
    std::size_t m_FreeUnread() const QOR_REQUIRES(m_mutex);
    bool m_IsDeaf(TSender& sender) const QOR_REQUIRES(m_mutex);
    bool m_IsPingDue(TSender& sender) const QOR_REQUIRES(m_mutex);
    void m_CountUnread(TSender& sender, std::size_t size) QOR_REQUIRES(m_mutex);
    TOnNews m_News(bool isPingDue) QOR_REQUIRES(m_mutex);
    void m_Refuse(GDBusMessage* pCall, const char* errorName, const char* reason);
    TSender& m_Sender(const char* name) QOR_REQUIRES(m_mutex);

    GDBusConnection* const m_pConnection;
    const std::string m_objectPath;
    TSPosixMutex m_mutex;
    bool m_admits QOR_GUARDED_BY(m_mutex);
    bool m_isClosed QOR_GUARDED_BY(m_mutex);
    TOnSender m_onSender QOR_GUARDED_BY(m_mutex); // empty: senders' users are not needed
    TOnNews m_onNews QOR_GUARDED_BY(m_mutex);
    TCDbusAccounts m_accounts QOR_GUARDED_BY(m_mutex);
    std::size_t m_sendersAtNextSweep QOR_GUARDED_BY(m_mutex);
    gint64 m_lastSweep QOR_GUARDED_BY(m_mutex); // monotonic times
    gint64 m_lastLargeAnswer QOR_GUARDED_BY(m_mutex);
    bool m_isSweepDue QOR_GUARDED_BY(m_mutex);
    bool m_isSomebodyLate QOR_GUARDED_BY(m_mutex); // a sender waits until others make room
    std::uint64_t m_refused QOR_GUARDED_BY(m_mutex);
    std::size_t m_unwrittenRefusals QOR_GUARDED_BY(m_mutex);
};

} // namespace qor

#endif
