// Answers the questions about the policy and the service.
#include "qord/Queries.h"

#include <unistd.h>

#include <ctime>

#include <nlohmann/json.hpp>

#include <qor/QORDbus.h>

#include "common/Events.h"
#include "common/ServiceMessage.h"
#include "common/SystemBus.h"
#include "common/Text.h"
#include "qord/Report.h"

namespace qord
{
namespace
{

using TJson = nlohmann::ordered_json;

// What stands in an answer beside the text.
constexpr std::size_t ANSWER_ROOM = 128;

TJson SetterOf(const TCPolicyHistory::TSEntry& entry)
{
    if (!entry.m_setter)
    {
        return nullptr;
    }
    return {{"user_id", entry.m_setter->m_userId},
            {"user", entry.m_setter->m_userName},
            {"process_id", entry.m_setter->m_processId},
            {"program", entry.m_setter->m_program}};
}

TJson Describe(TCPolicyHandler& handler, const TSStoredPolicy& policy)
{
    const auto entry = handler.History().Find(handler.Store(), policy);
    return {{"bytes", policy.m_status.st_size},
            {"sha256", entry.m_sha256},
            {"set_at", tools::LocalTime(policy.m_status.st_mtim.tv_sec)},
            {"set_by", SetterOf(entry)}};
}

void AddPolicies(TJson& status, const TSOptions& options, TCPolicyHandler& handler)
{
    status["policy"] = {{"file", options.m_policyFile}, {"present", false}};
    status["keep"] = options.m_storeRules.m_copies;
    status["kept"] = TJson::array();
    for (const TSStoredPolicy& policy : handler.Store().List())
    {
        const TJson described = Describe(handler, policy);
        if (policy.m_number != 0)
        {
            TJson kept = {{"number", policy.m_number}};
            kept.update(described);
            status["kept"].push_back(kept);
            continue;
        }
        status["policy"]["present"] = true;
        status["policy"].update(described);
    }
}

TJson WhoMayChange(const TSPermissionRules& rules)
{
    TJson users = {tools::UserName(0)};
    if (geteuid() != 0)
    {
        users.push_back(tools::UserName(geteuid()));
    }
    return {{"everyone", rules.m_everyone}, {"users", users}, {"groups", rules.m_groups}};
}

TJson ToJson(const TSEventResult& result)
{
    if (result.m_number == 0)
    {
        return nullptr;
    }
    TJson missed = TJson::array();
    for (const TSMissed& one : result.m_missed)
    {
        missed.push_back({{"name", one.m_name},
                          {"program", one.m_sender.m_program},
                          {"process_id", one.m_sender.m_processId},
                          {"outcome", one.m_outcome}});
    }
    return {{"event", tools::EventName(result.m_type)},
            {"at", tools::LocalTime(result.m_time)},
            {"delivered", result.m_delivered},
            {"failed", result.m_failed},
            {"missed", missed}};
}

TJson ToJson(const qor::TCDbusServer::TSClientInfo& client, TSApplication& application,
             const std::string& policy)
{
    TJson described = {{"name", client.m_name},
                       {"types", client.m_types},
                       {"suspended", client.m_isSuspended},
                       {"heard", !policy.empty() && application.m_heard == policy},
                       {"heard_at", nullptr}};
    if (application.m_heardAt != 0)
    {
        described["heard_at"] = tools::LocalTime(application.m_heardAt);
    }
    if (application.m_isKnown)
    {
        TSSender& sender = application.m_sender;
        AskForUserName(sender);
        described["process_id"] = sender.m_processId;
        described["program"] = sender.m_program;
        described["user_id"] = sender.m_userId;
        described["user"] = sender.m_userName;
    }
    return described;
}

} // namespace

TCQueries::TCQueries(const TSOptions& options, TCPolicyHandler& handler, TCEvents& events)
    : m_options(options), m_handler(handler), m_events(events), m_upSince(std::time(nullptr))
{
}

bool TCQueries::GetPolicy(const qor::TByteArray& request, bool mayRead,
                          qor::TByteArray& reply) const
{
    std::int32_t number = 0;
    if (!tools::ReadGetPolicyRequest(request, number))
    {
        return false;
    }
    std::string policy;
    std::string error;
    int result = tools::NO_SUCH_POLICY;
    if (!mayRead)
    {
        result = qor::POLICY_NOT_PERMITTED;
    }
    else if (number >= 0 && m_handler.Store().Read(static_cast<std::uint64_t>(number), policy,
                                                   qor::TCDbus::MaxPayload() - ANSWER_ROOM, error))
    {
        result = tools::POLICY_SENT;
    }
    else if (!error.empty())
    {
        ReportError("policy %d was asked for and cannot be read: %s", number, error.c_str());
        result = tools::POLICY_NOT_READ;
    }
    tools::WriteGetPolicyReply(result, result == tools::POLICY_SENT ? policy : "", reply);
    return true;
}

void TCQueries::GetStatus(qor::TCDbusServer& server, bool mayRead, qor::TByteArray& reply)
{
    TJson status;
    status["service"] = {{"name", tools::ServiceName(m_options.m_testNames)},
                         {"version", QOR_VERSION},
                         {"unique_name", server.GetUniqueName()},
                         {"process_id", getpid()},
                         {"user", tools::UserName(geteuid())},
                         {"up_since", tools::LocalTime(m_upSince)}};
    status["may_change"] = WhoMayChange(m_options.m_permission);
    if (mayRead)
    {
        AddPolicies(status, m_options, m_handler);
        status["clients"] = m_ListClients(server);
        status["last_event"] = ToJson(m_events.Last());
    }
    tools::WriteStatusReply(status.dump(-1, ' ', false, TJson::error_handler_t::replace), reply);
}

TJson TCQueries::m_ListClients(qor::TCDbusServer& server)
{
    const std::string asker = server.GetCurrentSender();
    const std::string policy = MarkOfPolicyInForce(m_handler.Store());
    const TApplications& applications = m_events.Applications(server);
    TJson clients = TJson::array();
    for (const auto& client : server.Clients())
    {
        const auto found = applications.find(client.m_name);
        const bool isOnlyAsking = client.m_name == asker && client.m_types.empty();
        if (!isOnlyAsking && found != applications.end())
        {
            clients.push_back(ToJson(client, *found->second, policy));
        }
    }
    return clients;
}

std::string TCQueries::Summary(qor::TCDbusServer& server) const
{
    const auto policies = m_handler.Store().List();
    const bool isThere = !policies.empty() && policies.back().m_number == 0;
    const std::string policy =
        isThere ? "a policy of " + std::to_string(policies.back().m_status.st_size) + " bytes"
                : "no policy yet";
    return policy + ", " + std::to_string(server.NumberOfClients()) + " clients";
}

} // namespace qord
