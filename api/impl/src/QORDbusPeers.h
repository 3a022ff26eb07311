// The users and processes behind the names of our callers and clients.
#ifndef QOR_QORDBUSPEERS_H
#define QOR_QORDBUSPEERS_H

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gio/gio.h>

#include <qor/IDbusService.h>
#include <qor/Mutex.h>

#include "QORLocks.h"

namespace qor
{

class TCDbusCalls;

// Asks the bus once for each unique name, because the bus does not reuse these names; about a few
// of them at a time. Any thread may call it. Outlives the calls, whose answers come back here.
class TCDbusPeers
{
public:
    // Gets the bus's answer, or a peer that is not known.
    using TOnAnswer = std::function<void(const TSPeer&)>;

    explicit TCDbusPeers(TCDbusCalls& calls);

    TCDbusPeers(const TCDbusPeers&) = delete;
    TCDbusPeers& operator=(const TCDbusPeers&) = delete;

    // Asks the bus, unless it has been asked. Does not wait: the function is called at once, or on
    // the worker thread.
    void Ask(const std::string& name, const TOnAnswer& onAnswer) QOR_EXCLUDES(m_mutex);

    // The same, but waits for the answer until one second after the question.
    TSPeer Find(const std::string& name) QOR_EXCLUDES(m_mutex);

    // A client is remembered until it is forgotten; others until they have been quiet for a while.
    void Keep(const std::string& name) QOR_EXCLUDES(m_mutex);
    void Forget(const std::string& name) QOR_EXCLUDES(m_mutex);

private:
    struct TSEntry
    {
        TSPeer m_peer;
        bool m_isAsked = false;
        bool m_isAnswered = false;
        bool m_isKept = false;
        gint64 m_lastUse = 0; // monotonic times
        gint64 m_since = 0;
        std::vector<TOnAnswer> m_waiting; // until it is answered
    };

    void m_AskBus() QOR_EXCLUDES(m_mutex);
    bool m_TakeNext(std::string& name) QOR_EXCLUDES(m_mutex);
    void m_Answered(const std::string& name, GDBusMessage* pAnswer) QOR_EXCLUDES(m_mutex);
    void m_DropQuiet() QOR_REQUIRES(m_mutex);

    TCDbusCalls& m_calls;
    TSPosixMutex m_mutex;
    TCCondition m_changed;
    std::map<std::string, TSEntry> m_entries QOR_GUARDED_BY(m_mutex);
    std::deque<std::string> m_unasked QOR_GUARDED_BY(m_mutex); // in the order of their questions
    std::size_t m_questions QOR_GUARDED_BY(m_mutex);           // without an answer
    std::size_t m_entriesAtNextSweep QOR_GUARDED_BY(m_mutex);
};

} // namespace qor

#endif
