// The users and processes behind the names of our callers and clients.
#include "QORDbusPeers.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <qor/GlibTypes.h>

#include "QORBusConnection.h"
#include "QORDbusCalls.h"
#include "QORLimits.h"
#include "QORLocks.h"

namespace qor
{

namespace
{

constexpr gint64 WAIT_US = G_TIME_SPAN_SECOND;
constexpr gint64 QUIET_US = 60 * G_TIME_SPAN_SECOND;
// Entries, of a few hundred bytes each: from how many on quiet ones are dropped, and from how many
// on all whose owners are no clients. They can be asked for again.
constexpr std::size_t FIRST_DROP = 64;
constexpr std::size_t MOST_PEERS = 4096;

// Reads what the bus says about a name; from any other answer it learns nothing.
TSPeer ReadCredentials(const std::string& name, GDBusMessage* pAnswer)
{
    TSPeer peer;
    peer.m_name = name;
    GVariant* pBody = g_dbus_message_get_body(pAnswer);
    if (pBody == nullptr || !g_variant_is_of_type(pBody, G_VARIANT_TYPE("(a{sv})")))
    {
        return peer;
    }
    const TGlibPtr<GVariant> pCredentials(g_variant_get_child_value(pBody, 0));
    guint32 processId = 0;
    peer.m_isKnown =
        g_variant_lookup(pCredentials.get(), "UnixUserID", "u", &peer.m_userId) != FALSE;
    if (g_variant_lookup(pCredentials.get(), "ProcessID", "u", &processId) != FALSE)
    {
        peer.m_processId = static_cast<int>(processId);
    }
    const TGlibPtr<GVariant> pGroups(
        g_variant_lookup_value(pCredentials.get(), "UnixGroupIDs", G_VARIANT_TYPE("au")));
    if (pGroups != nullptr)
    {
        gsize count = 0;
        const auto* pIds = static_cast<const guint32*>(
            g_variant_get_fixed_array(pGroups.get(), &count, sizeof(guint32)));
        peer.m_hasGroups = true;
        peer.m_groupIds.assign(pIds, pIds + count);
    }
    return peer;
}

} // namespace

TCDbusPeers::TCDbusPeers(TCDbusCalls& calls)
    : m_calls(calls), m_questions(0), m_entriesAtNextSweep(FIRST_DROP)
{
}

void TCDbusPeers::Ask(const std::string& name, const TOnAnswer& onAnswer)
{
    TSPeer known;
    {
        const TCPosixLock lock(m_mutex);
        const auto found = m_entries.find(name);
        const bool isNew = found == m_entries.end();
        if (isNew && m_entries.size() >= m_entriesAtNextSweep)
        {
            m_DropQuiet();
        }
        TSEntry& entry = m_entries[name];
        entry.m_lastUse = g_get_monotonic_time();
        if (isNew)
        {
            entry.m_since = entry.m_lastUse;
            m_unasked.push_back(name);
        }
        if (!entry.m_isAnswered && onAnswer)
        {
            entry.m_waiting.push_back(onAnswer);
        }
        known = entry.m_peer;
    }
    if (!known.m_name.empty() && onAnswer)
    {
        onAnswer(known);
    }
    m_AskBus();
}

void TCDbusPeers::m_AskBus()
{
    std::string name;
    while (m_TakeNext(name))
    {
        const TGlibPtr<GDBusMessage> pCall(g_dbus_message_new_method_call(
            BUS_NAME, BUS_PATH, BUS_NAME, "GetConnectionCredentials"));
        g_dbus_message_set_body(pCall.get(), g_variant_new("(s)", name.c_str()));
        const auto onAnswer = [this, name](GDBusMessage* pAnswer)
        {
            m_Answered(name, pAnswer);
            m_AskBus();
        };
        if (m_calls.Call(pCall.get(), onAnswer, nullptr) == 0)
        {
            m_Answered(name, pCall.get()); // which is no answer: nothing is known
        }
    }
}

// Whether the bus may be asked now, and whom about.
bool TCDbusPeers::m_TakeNext(std::string& name)
{
    const TCPosixLock lock(m_mutex);
    while (m_questions < PEER_SLOTS && !m_unasked.empty())
    {
        name = std::move(m_unasked.front());
        m_unasked.pop_front();
        const auto found = m_entries.find(name);
        if (found != m_entries.end() && !std::exchange(found->second.m_isAsked, true))
        {
            ++m_questions;
            return true;
        } // else it was forgotten meanwhile
    }
    return false;
}

void TCDbusPeers::m_Answered(const std::string& name, GDBusMessage* pAnswer)
{
    TSPeer peer = ReadCredentials(name, pAnswer);
    std::vector<TOnAnswer> waiting;
    {
        const TCPosixLock lock(m_mutex);
        --m_questions;
        const auto found = m_entries.find(name);
        if (found == m_entries.end())
        {
            return; // forgotten meanwhile
        }
        found->second.m_peer = peer;
        found->second.m_isAnswered = true;
        waiting.swap(found->second.m_waiting);
        m_changed.Broadcast();
    }
    for (const TOnAnswer& onAnswer : waiting)
    {
        onAnswer(peer);
    }
}

TSPeer TCDbusPeers::Find(const std::string& name)
{
    Ask(name, nullptr);
    TCPosixLock lock(m_mutex);
    const auto asked = m_entries.find(name);
    const gint64 end = WAIT_US + (asked == m_entries.end() ? 0 : asked->second.m_since);
    for (;;)
    {
        const auto found = m_entries.find(name);
        if (found == m_entries.end())
        {
            break; // forgotten meanwhile
        }
        if (found->second.m_isAnswered)
        {
            return found->second.m_peer;
        }
        if (!lock.WaitUntil(m_changed, end))
        {
            break;
        }
    }
    TSPeer unknown;
    unknown.m_name = name;
    return unknown;
}

void TCDbusPeers::Keep(const std::string& name)
{
    const TCPosixLock lock(m_mutex);
    const auto found = m_entries.find(name);
    if (found != m_entries.end())
    {
        found->second.m_isKept = true;
    }
}

void TCDbusPeers::Forget(const std::string& name)
{
    const TCPosixLock lock(m_mutex);
    m_entries.erase(name);
}

void TCDbusPeers::m_DropQuiet()
{
    const bool isFull = m_entries.size() >= MOST_PEERS;
    const gint64 now = g_get_monotonic_time();
    for (auto i = m_entries.begin(); i != m_entries.end();)
    {
        const TSEntry& entry = i->second;
        const bool isDropped =
            entry.m_isAnswered && !entry.m_isKept && (isFull || now - entry.m_lastUse > QUIET_US);
        i = isDropped ? m_entries.erase(i) : std::next(i);
    }
    m_entriesAtNextSweep = std::min(std::max(FIRST_DROP, 2 * m_entries.size()),
                                    std::max(MOST_PEERS, m_entries.size() + FIRST_DROP));
}

} // namespace qor
