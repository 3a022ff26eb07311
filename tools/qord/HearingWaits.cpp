// Calls that are answered when the applications have heard of a policy.
#include "qord/HearingWaits.h"

#include <utility>

#include "qord/PolicyFacts.h"

namespace qord
{
namespace
{

constexpr std::size_t MAX_WAITS = 64;
// A client that leaves, and a deadline, are noticed within that.
constexpr unsigned int INTERVAL_MS = 200;

// The client's outcome of the last event; empty if the event was not for it.
std::string OutcomeOf(const TSEventResult& event, const std::string& name)
{
    for (const TSMissed& missed : event.m_missed)
    {
        if (missed.m_name == name)
        {
            return missed.m_outcome;
        }
    }
    return "";
}

} // namespace

void AddStored(TCDictionary& about, const std::string& sha256, std::uint64_t size)
{
    about.Add("sha256", sha256);
    about.Add("size", g_variant_new_uint64(size));
}

TCHearingWaits::TCHearingWaits(const TCPolicyStore& store, TCEvents& events)
    : m_store(store), m_events(events)
{
}

TCHearingWaits::~TCHearingWaits()
{
    if (m_source != 0)
    {
        g_source_remove(m_source);
    }
}

bool TCHearingWaits::IsFull() const
{
    return m_waits.size() >= MAX_WAITS;
}

void TCHearingWaits::Add(qor::TCDbusServer& server, GDBusMethodInvocation* pInvocation,
                         const std::string& sha256, std::uint64_t size, unsigned int seconds)
{
    m_pServer = &server;
    m_waits.push_back({qor::TGlibPtr<GDBusMethodInvocation>(pInvocation),
                       MarkOfPolicyInForce(m_store), sha256, size,
                       g_get_monotonic_time() + seconds * G_TIME_SPAN_SECOND});
    if (m_source == 0)
    {
        m_source = g_timeout_add(INTERVAL_MS, m_OnTime, this);
    }
}

void TCHearingWaits::Look()
{
    m_waits.remove_if([this](TSWait& wait) { return m_Answer(wait, false); });
}

void TCHearingWaits::End()
{
    m_waits.remove_if([this](TSWait& wait) { return m_Answer(wait, true); });
}

int TCHearingWaits::m_OnTime(void* pWaits)
{
    auto* pThis = static_cast<TCHearingWaits*>(pWaits);
    pThis->Look();
    if (!pThis->m_waits.empty())
    {
        return G_SOURCE_CONTINUE;
    }
    pThis->m_source = 0;
    return G_SOURCE_REMOVE;
}

// Whether it has been answered.
bool TCHearingWaits::m_Answer(TSWait& wait, bool isLast)
{
    const bool isSuperseded = MarkOfPolicyInForce(m_store) != wait.m_mark;
    const std::string caller = g_dbus_method_invocation_get_sender(wait.m_pInvocation.get());
    const TApplications& applications = m_events.Applications(*m_pServer);
    guint32 listening = 0;
    std::vector<TSMissed> notHeard;
    for (const auto& client : m_pServer->Clients())
    {
        const auto found = applications.find(client.m_name);
        if (client.m_name == caller || found == applications.end() ||
            !IsListening(*m_pServer, client.m_name))
        {
            continue;
        }
        ++listening;
        if (found->second->m_heard != wait.m_mark)
        {
            notHeard.push_back({client.m_name, found->second->m_sender,
                                OutcomeOf(m_events.Last(), client.m_name)});
        }
    }
    const bool isOver = notHeard.empty() || isSuperseded || isLast;
    if (!isOver && g_get_monotonic_time() < wait.m_deadline)
    {
        return false;
    }
    TCDictionary about;
    AddStored(about, wait.m_sha256, wait.m_size);
    about.Add("applications", g_variant_new_uint32(listening));
    about.Add("heard", g_variant_new_uint32(listening - static_cast<guint32>(notHeard.size())));
    about.Add("not-heard", NotHeard(notHeard));
    about.Add("superseded", g_variant_new_boolean(isSuperseded));
    g_dbus_method_invocation_return_value(wait.m_pInvocation.release(),
                                          g_variant_new("(@a{sv})", about.End()));
    return true;
}

} // namespace qord
