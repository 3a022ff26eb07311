// Puts parts of what the service tells about itself into words.
#include "qorctl/StatusWords.h"

#include <algorithm>

#include <qor/ICallbacks.h>

#include "common/Events.h"
#include "common/Text.h"

namespace qorctl
{
namespace
{

void Append(std::string& list, const std::string& word)
{
    list += (list.empty() ? "" : ", ") + word;
}

} // namespace

std::string MayChange(const TJson& status)
{
    const TJson rules = Part(status, "may_change");
    if (Part(rules, "everyone") == true)
    {
        return "everybody";
    }
    std::string who;
    for (const TJson& user : Part(rules, "users"))
    {
        Append(who, Text({{"name", user}}, "name"));
    }
    for (const TJson& group : Part(rules, "groups"))
    {
        Append(who, "members of the group " + Text({{"name", group}}, "name"));
    }
    return who;
}

std::string Setter(const TJson& policy)
{
    const TJson setter = Part(policy, "set_by");
    return setter.is_object() ? Text(setter, "user") + " (" + Text(setter, "program") +
                                    ", process " + Text(setter, "process_id") + ")"
                              : "unknown";
}

std::string EventNames(const TJson& client)
{
    std::string names;
    for (const TJson& type : Part(client, "types"))
    {
        const std::string name = tools::EventName(type.is_number() ? type.get<int>() : 0);
        Append(names, name == "unknown" ? Text({{"type", type}}, "type") : name);
    }
    return names;
}

bool IsListening(const TJson& client)
{
    const TJson types = Part(client, "types");
    return std::find(types.begin(), types.end(), TJson(qor::ICallbacks::POLICY_UPDATE)) !=
           types.end();
}

std::string Heard(const TJson& client)
{
    const TJson heard = Part(client, "heard");
    if (!IsListening(client) || !heard.is_boolean())
    {
        return IsListening(client) ? "unknown" : "-";
    }
    const std::string time = heard == true ? Text(client, "heard_at") : "no";
    return time.empty() ? "yes" : time;
}

std::string Client(const TJson& client, const std::string& remark)
{
    const std::string program = Text(client, "program");
    const std::string process = Text(client, "process_id");
    std::string details = process.empty() ? "" : "process " + process;
    Append(details, Text(client, "name"));
    if (!remark.empty())
    {
        Append(details, remark);
    }
    return (program.empty() ? "an unknown program" : program) + " (" + details + ")";
}

} // namespace qorctl
