// What is wrong with the policy, its place and its hearers, in sentences.
#include "qord/PolicyFacts.h"

#include <string>
#include <vector>

namespace qord
{
namespace
{

// So many of those that are suspended are named.
constexpr std::size_t MAX_SUSPENDED = 8;

} // namespace

// A user who may not read the policy learns what is wrong, but no file and no application.
std::vector<std::string> TCPolicyFacts::m_Problems(bool isDetailed, qor::TCDbusServer& server)
{
    std::vector<std::string> problems;
    const auto add = [&problems, isDetailed](const std::string& words, const std::string& details)
    { problems.push_back(words + (isDetailed && !details.empty() ? ": " + details : "")); };
    const TSInForce& inForce = m_Look();
    if (inForce.m_isThere && !inForce.m_isGood)
    {
        add("the policy in force is no good: it is not well-formed, or cannot be read", "");
    }
    if (!inForce.m_isThere && (m_handler.HasSeenPolicy() || !m_handler.Store().List().empty()))
    {
        add("the policy is missing, and there was one", m_policyFile);
    }
    if (const std::string& reason = m_handler.WhyNotStored(); !reason.empty())
    {
        add("the last policy could not be stored", reason);
    }
    if (const std::string reason = m_handler.Store().WhyNotNow(); !reason.empty())
    {
        add("nothing can be stored just now", reason);
    }
    for (const std::string& group : m_permission.MissingGroups())
    {
        add("there is no group " + group + " whose members could change the policy", "");
    }
    if (const std::string clients = m_Suspended(isDetailed, server); !clients.empty())
    {
        add(clients, "");
    }
    return problems;
}

// Empty if no client is suspended.
std::string TCPolicyFacts::m_Suspended(bool isDetailed, qor::TCDbusServer& server)
{
    std::vector<std::string> suspended;
    const std::size_t count = server.SuspendedClients(MAX_SUSPENDED, suspended);
    if (count == 0)
    {
        return "";
    }
    std::string words =
        std::to_string(count) +
        (count == 1 ? " client is suspended, having" : " clients are suspended, having") +
        " left an event unanswered";
    if (!isDetailed)
    {
        return words;
    }
    const TApplications& applications = m_events.Known();
    for (const std::string& name : suspended)
    {
        const auto found = applications.find(name);
        words += (name == suspended.front() ? ": " : ", ") +
                 (found != applications.end() && found->second->m_isKnown
                      ? found->second->m_sender.m_program + " (process " +
                            std::to_string(found->second->m_sender.m_processId) + ", " + name + ")"
                      : name);
    }
    return words + (count > MAX_SUSPENDED ? " and others" : "");
}

} // namespace qord
