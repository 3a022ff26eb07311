// qorctl status, clients and history: the service's facts about itself.
#include "common/ExitStatus.h"
#include "common/Output.h"
#include "common/SystemBus.h"
#include "qorctl/Commands.h"
#include "qorctl/Message.h"
#include "qorctl/ServiceCall.h"
#include "qorctl/ServiceFacts.h"
#include "qorctl/StatusWords.h"
#include "qorctl/Table.h"

namespace qorctl
{
namespace
{

// The process that does not answer; empty if the bus knows of none, or does not answer either.
std::string WhoIsThere(const TSOptions& options)
{
    std::string error;
    const auto connection = tools::ConnectToSystemBus(error);
    const auto found = connection ? tools::QueryService(connection.get(), options.m_testNames)
                                  : tools::TSServiceStatus();
    return found.m_owner.empty()
               ? ""
               : "the service is on the bus (unique name " + found.m_owner + ", process id " +
                     std::to_string(found.m_processId) + "), but does not tell: ";
}

// Empty if the service does not answer; then this is reported.
std::optional<TJson> Ask(const TSOptions& options, int& exitStatus)
{
    const auto endpoint = Endpoint(options);
    qor::TSMethodResult answer;
    const TJson status = AskStatus(options, answer);
    if (status.is_object())
    {
        exitStatus = tools::EXIT_OK;
        return std::make_optional<TJson>(status); // TJson has a conversion of its own
    }
    const qor::TSSendResult& result = answer.m_send;
    exitStatus = IsGood(result) ? tools::EXIT_BAD_ANSWER : tools::EXIT_NOT_DELIVERED;
    const bool isNobody = result.m_status == qor::ESendStatus::NO_SERVICE ||
                          result.m_status == qor::ESendStatus::NO_BUS;
    SayError((isNobody ? "" : WhoIsThere(options)) + WhyNot(result));
    return std::nullopt;
}

void AddPolicy(TCTable& table, const TJson& policy)
{
    table.Add({"Policy", Text(policy, "file")});
    if (Part(policy, "present") != true)
    {
        table.Add({"", "none yet"});
        return;
    }
    table.Add({"", Text(policy, "bytes") + " bytes, SHA-256 " + Text(policy, "sha256")});
    table.Add({"Set", Text(policy, "set_at") + " by " + Setter(policy)});
    if (Part(policy, "well_formed") == false)
    {
        table.Add(
            {"", "it is no good: the service would refuse it today; qorctl validate says why"});
    }
}

TJson Problems(const TJson& status)
{
    const TJson problems = Part(status, "problems");
    return problems.is_array() ? problems : TJson::array();
}

void PrintStatus(const TJson& status)
{
    TCTable table;
    const TJson service = Part(status, "service");
    table.Add({"Service", Text(service, "name") + ", version " + Text(service, "version")});
    table.Add({"On the bus", "unique name " + Text(service, "unique_name") + ", process id " +
                                 Text(service, "process_id") + ", user " + Text(service, "user")});
    table.Add({"Up since", Text(service, "up_since")});
    for (const TJson& problem : Problems(status))
    {
        table.Add({"Problem", Text({{"problem", problem}}, "problem")});
    }
    if (const TJson policy = Part(status, "policy"); policy.is_object())
    {
        AddPolicy(table, policy);
        table.Add({"Kept before it", std::to_string(Part(status, "kept").size())});
        table.Add({"Clients", std::to_string(Part(status, "clients").size())});
    }
    if (const TJson event = Part(status, "last_event"); event.is_object())
    {
        table.Add({"Last event", Text(event, "event") + " at " + Text(event, "at") + ": " +
                                     Text(event, "delivered") + " delivered, " +
                                     Text(event, "failed") + " failed"});
        for (const TJson& missed : Part(event, "missed"))
        {
            table.Add({"", "not by " + Client(missed, Text(missed, "outcome"))});
        }
    }
    table.Add({"May change it", MayChange(status)});
    table.Print();
}

void PrintHistory(const TJson& status)
{
    TCTable table({"NUMBER", "SET", "BYTES", "SHA-256", "BY"});
    const auto add = [&table](const std::string& number, const TJson& policy)
    {
        table.Add({number, Text(policy, "set_at"), Text(policy, "bytes"),
                   Text(policy, "sha256").substr(0, 12), Setter(policy)});
    };
    for (const TJson& policy : Part(status, "kept"))
    {
        add(Text(policy, "number"), policy);
    }
    if (const TJson policy = Part(status, "policy"); Part(policy, "present") == true)
    {
        add("in force", policy);
    }
    table.Print();
}

void PrintClients(const TJson& status)
{
    TCTable table({"NAME", "PROCESS", "PROGRAM", "USER", "STATE", "POLICY HEARD", "EVENTS"});
    for (const TJson& client : Part(status, "clients"))
    {
        table.Add({Text(client, "name"), Text(client, "process_id"), Text(client, "program"),
                   Text(client, "user"), Part(client, "suspended") == true ? "suspended" : "active",
                   Heard(client), EventNames(client)});
    }
    table.Print();
}

// The service leaves facts that only some users may read out of its answer to others.
bool IsShown(const TJson& status, const char* part)
{
    if (Part(status, part).is_null())
    {
        SayError("the service refused: only users who may change the policy may read that");
        return false;
    }
    return true;
}

int ReportHealth(const TSOptions& options, const TJson& status)
{
    if (!Part(status, "problems").is_array())
    {
        SayError("the service does not tell whether it is healthy");
        return tools::EXIT_BAD_ANSWER;
    }
    const TJson problems = Problems(status);
    const bool isSilent = options.m_quiet || options.m_json;
    for (const TJson& problem : problems)
    {
        Say(isSilent, Text({{"problem", problem}}, "problem"));
    }
    Say(isSilent || !problems.empty(), "The service is healthy.");
    return problems.empty() ? tools::EXIT_OK : tools::EXIT_REFUSED;
}

} // namespace

int Status(const TSOptions& options)
{
    int exitStatus = tools::EXIT_OK;
    const auto status = Ask(options, exitStatus);
    if (status && options.m_json)
    {
        PrintJson(*status);
    }
    if (status && options.m_isHealthCheck)
    {
        return ReportHealth(options, *status);
    }
    if (status && !options.m_json && !options.m_quiet)
    {
        PrintStatus(*status);
    }
    return exitStatus;
}

int History(const TSOptions& options)
{
    int exitStatus = tools::EXIT_OK;
    const auto status = Ask(options, exitStatus);
    if (!status || !IsShown(*status, "kept"))
    {
        return status ? tools::EXIT_REFUSED : exitStatus;
    }
    if (options.m_json)
    {
        PrintJson({{"policy", Part(*status, "policy")}, {"kept", Part(*status, "kept")}});
        return tools::EXIT_OK;
    }
    PrintHistory(*status);
    return tools::EXIT_OK;
}

int Clients(const TSOptions& options)
{
    int exitStatus = tools::EXIT_OK;
    const auto status = Ask(options, exitStatus);
    if (!status || !IsShown(*status, "clients"))
    {
        return status ? tools::EXIT_REFUSED : exitStatus;
    }
    if (options.m_json)
    {
        PrintJson(Part(*status, "clients"));
        return tools::EXIT_OK;
    }
    PrintClients(*status);
    return tools::EXIT_OK;
}

} // namespace qorctl
