// The calls and other work that an endpoint has not handled yet, and their order.
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

// The calls of one user, or of a sender with an account of its own, are handled in the order of
// their arrival; users take turns. A call waits until the bus has told which user has sent it. The
// endpoint's own work comes first, because no caller decides how much that is. To be used only on
// the thread that handles messages.
class TCDbusTurns
{
public:
    using TWork = std::function<void()>;

    void Add(TWork work);
    // The work holds the call.
    void AddCall(GDBusMessage* pCall, TWork work);

    // Runs one piece of work, which may add more.
    void RunNext(TCDbusAdmission* pAdmission);
    // Tries calls again that had to wait.
    void TryWaiting();
    void Clear();

    // Whether there may be work to run now; or later, when calls that wait may run.
    bool HasMore() const;
    bool HasWaiting() const;
    // Whether calls have had their time in this round of the main context. Then timers and other
    // sources have their turn.
    bool IsRoundOver();
    // Whether a malformed message is the first for a while: only the first of many is logged.
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
