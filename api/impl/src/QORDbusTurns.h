// What an endpoint has yet to handle, and in which order.
#ifndef QOR_QORDBUSTURNS_H
#define QOR_QORDBUSTURNS_H

#include <deque>
#include <functional>
#include <list>
#include <map>
#include <string>

#include <gio/gio.h>

namespace qor
{

class TCDbusAdmission;

// The calls of one user, or of one sender who shares with nobody, are handled in the order in which
// they came; users have their turns in rotation. Calls wait while it is not known whose they are.
// The endpoint's own work goes first: nobody else decides how much that is. Only on the thread that
// handles messages.
class TCDbusTurns
{
public:
    using TWork = std::function<void()>;

    void Add(TWork work);
    // The work holds the call.
    void AddCall(GDBusMessage* pCall, TWork work);

    // Runs one. What runs may add more.
    void RunNext(TCDbusAdmission* pAdmission);
    // Those that were found to wait are tried again.
    void TryWaiting();
    void Clear();

    // Whether there may be something to run now; or later, of what waits.
    bool HasMore() const;
    bool HasWaiting() const;
    // Whether calls have taken their share of this round of the main context, whose other work,
    // timers among it, is to have its turn.
    bool IsRoundOver();
    // Whether a message that no endpoint sends is the first for a while: one of many is reported.
    bool IsNewBurst();

private:
    struct TSCall
    {
        GDBusMessage* m_pCall;
        TWork m_work;
    };
    using TCalls = std::list<TSCall>;
    struct TSUser
    {
        std::string m_name;
        TCalls m_calls;
    };

    void m_Sort(TCDbusAdmission* pAdmission);
    void m_Append(const std::string& user, TCalls::iterator call);
    TWork m_TakeCall(TCDbusAdmission* pAdmission);

    std::deque<TWork> m_own;
    TCalls m_incoming;
    std::map<std::string, TCalls> m_unknown; // by sender
    std::list<TSUser> m_users;               // that have calls; the next one first
    std::map<std::string, std::list<TSUser>::iterator> m_byName;
    bool m_isBlocked = false; // no call can be handled just now
    gint64 m_round = 0;       // monotonic times
    gint64 m_endOfRound = 0;
    gint64 m_lastOfBurst = 0; // 0: never
};

} // namespace qor

#endif
