// The accounts of what senders of calls, and their users, cost an endpoint.
#ifndef QOR_QORDBUSACCOUNTS_H
#define QOR_QORDBUSACCOUNTS_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

#include <gio/gio.h>

#include <qor/IDbusService.h>

namespace qor
{

// The account of one sender, or of all senders of one user.
struct TSDbusAccount
{
    std::size_t m_calls = 0; // that are open
    std::size_t m_bytes = 0; // of those
    // Bytes of answers of which it is not known that the receiver has read them; the bus may still
    // keep them.
    std::size_t m_unread = 0;
    std::size_t m_pings = 0;  // without an answer
    gint64 m_lastRefusal = 0; // monotonic time; 0: never
};

// The accounts of a connection's senders. A call is open until its answer is written; one that
// wants no answer, until its message is freed. Used under the lock of admission.
class TCDbusAccounts
{
public:
    struct TSOpenCall
    {
        TSOpenCall(GDBusMessage* pMessage, std::string sender, std::size_t size, bool isForeign);
        ~TSOpenCall();
        TSOpenCall(const TSOpenCall&) = delete;
        TSOpenCall& operator=(const TSOpenCall&) = delete;

        bool IsGone();

        GWeakRef m_message;
        const std::string m_sender;
        const std::size_t m_size;
        const bool m_isForeign;
        bool m_isHandled = false;
        gint64 m_goneSince = 0; // monotonic time, when that was seen; 0: never
    };
    using TOpenCalls = std::multimap<std::uint32_t, TSOpenCall>; // by serial, which senders choose
    struct TSSender
    {
        TSDbusAccount& Account()
        {
            return m_pUser != nullptr ? *m_pUser : m_own;
        }

        TSDbusAccount m_own;
        std::shared_ptr<TSDbusAccount> m_pUser; // shared with others; or none
        TOpenCalls m_open;
        TSPeer m_peer;            // once the bus has told
        gint64 m_since = 0;       // monotonic time
        std::size_t m_atPing = 0; // bytes that were unread then
        bool m_isAsked = false;   // the bus, who it is
        bool m_isTold = false;    // by the bus, perhaps that it is gone
        bool m_isPinged = false;
    };
    using TSenders = std::map<std::string, TSSender>; // by unique name

    TSSender& Get(const std::string& name);
    TSSender* Find(const std::string& name);
    TSenders& Senders()
    {
        return m_senders;
    }
    // Of all senders together.
    const TSDbusAccount& All() const
    {
        return m_all;
    }

    // Calls to other paths: they count only together.
    std::size_t Foreign() const
    {
        return m_foreign;
    }

    // Adds the call to the accounts.
    void Open(TSSender& sender, GDBusMessage* pCall, std::size_t size, bool isOurs);
    // An answer to the call is being written, so the call is no longer open. False if there is no
    // such call.
    bool Close(TSSender& sender, std::uint32_t serial);
    // The call that is handled now.
    void SetHandled(TSSender& sender, std::uint32_t serial);
    // How many handled calls have been answered with answers that are not written yet. The other
    // calls are held by code that will answer later, or were dropped without an answer.
    std::size_t Unwritten();
    // Removes calls from the accounts that wanted no answer and are freed: the first ones, or all.
    void DropSilent(bool isWhole);
    // Removes calls from the accounts that were freed without the answer that they wanted.
    void DropLost();

    void AddUnread(TSSender& sender, std::size_t size);
    void SubtractUnread(TSSender& sender, std::size_t size);
    void SetPinged(TSSender& sender, bool isPinged);

    // Moves the sender's calls and bytes to another account: that of all senders that the bus has
    // not described yet, that of its user, or its own.
    void SetStranger(TSSender& sender);
    void SetUser(TSSender& sender, std::uint32_t userId);
    void SetOwn(TSSender& sender);

    // Forgets senders and users without open calls and unread answers that were not refused within
    // that time.
    void DropQuiet(gint64 microseconds);

private:
    static void m_Move(TSSender& sender, const std::shared_ptr<TSDbusAccount>& user);
    void m_Count(TSSender& sender, std::size_t size);
    void m_Discount(TSSender& sender, std::size_t size);
    void m_End(TSSender& sender, TOpenCalls::iterator call);
    static bool m_IsGoneFor(TSOpenCall& call, gint64 microseconds);

    TSenders m_senders;
    std::map<std::uint32_t, std::shared_ptr<TSDbusAccount>> m_users;
    const std::shared_ptr<TSDbusAccount> m_strangers = std::make_shared<TSDbusAccount>();
    std::list<TSOpenCall> m_silent;   // that want no answer
    std::list<TSOpenCall*> m_handled; // of those that do
    TSDbusAccount m_all;
    std::size_t m_foreign = 0;
};

} // namespace qor

#endif
