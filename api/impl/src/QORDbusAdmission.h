// Admission control of an endpoint's object: which calls of others may be queued, which handled.
//
// GDBus reads whatever the bus brings and queues it for the main context without limit, and what it
// answers without limit for the bus. So a user's calls to our object pass up to its share, and the
// rest is answered at once. A call is handled when it is known who sends it, and when there is room
// for its answer: the bus keeps answers until their receiver reads them, and stops reading from
// whoever has sent too much that it keeps.
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

    // Whether the call may pass; one that may not has been answered, where its sender reads
    // answers. On GDBus's worker thread.
    bool Admit(GDBusMessage* pCall) QOR_EXCLUDES(m_mutex);
    // An answer is about to be written. On the same thread.
    void NoteAnswer(GDBusMessage* pAnswer) QOR_EXCLUDES(m_mutex);

    // Stops refusing calls: the path may belong to another endpoint from now on. Any thread.
    void Stop() QOR_EXCLUDES(m_mutex);

    // From here on every call is refused, since there is no service any more. Any thread.
    void Close() QOR_EXCLUDES(m_mutex);

    // From here on users share accounts, and answers count until they are read. Gets the name of a
    // sender when its first call comes in; and is told when another call may be handled, or there
    // is something to do. Both on the worker thread, without a lock.
    using TOnSender = std::function<void(const std::string&)>;
    using TOnNews = std::function<void()>;
    void Serve(TOnSender onSender, TOnNews onNews) QOR_EXCLUDES(m_mutex);

    // The bus has told who a sender is, or nothing. Any thread.
    void SetPeer(const TSPeer& peer) QOR_EXCLUDES(m_mutex);

    // What the bus has told of the sender of an open call. False where it was not asked, or that
    // was long ago.
    bool FindPeer(const std::string& name, TSPeer& peer) QOR_EXCLUDES(m_mutex);

    enum class EUser
    {
        FOUND,
        NOT_YET,   // the bus has yet to tell
        OVER_LIMIT // the call is to be refused after all
    };
    // Whose account a call that has passed is on: users have their turns in rotation. Those of whom
    // the bus tells nothing are one. On the main context's thread.
    EUser FindUser(GDBusMessage* pCall, std::string& user) QOR_EXCLUDES(m_mutex);
    // Answers a call that has passed, which nobody handles then.
    void RefuseLate(GDBusMessage* pCall) QOR_EXCLUDES(m_mutex);

    enum class ETurn
    {
        NOW,    // it counts as handled from here on
        LATER,  // other users may have their turn
        NOBODYS // answers wait to be written
    };
    // Whether a call that has passed may be handled. On the main context's thread.
    ETurn MayHandle(GDBusMessage* pCall) QOR_EXCLUDES(m_mutex);

    // Who is to be asked whether it reads. An answer, or the bus's word that there is nobody, is
    // told to the other function.
    std::vector<std::string> TakePings() QOR_EXCLUDES(m_mutex);
    void Pinged(const std::string& name, bool isGone) QOR_EXCLUDES(m_mutex);

    // Whether it is time to look who is still on the bus; and those who were, at that time or
    // later.
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
    TOnSender m_onSender QOR_GUARDED_BY(m_mutex); // none: nobody asks who senders are
    TOnNews m_onNews QOR_GUARDED_BY(m_mutex);
    TCDbusAccounts m_accounts QOR_GUARDED_BY(m_mutex);
    std::size_t m_sendersAtNextSweep QOR_GUARDED_BY(m_mutex);
    gint64 m_lastSweep QOR_GUARDED_BY(m_mutex); // monotonic times
    gint64 m_lastLargeAnswer QOR_GUARDED_BY(m_mutex);
    bool m_isSweepDue QOR_GUARDED_BY(m_mutex);
    bool m_isSomebodyLate QOR_GUARDED_BY(m_mutex); // waits for what the next news may bring
    std::uint64_t m_refused QOR_GUARDED_BY(m_mutex);
    std::size_t m_unwrittenRefusals QOR_GUARDED_BY(m_mutex);
};

} // namespace qor

#endif
