// Puts the service's facts about itself into words.
#include "qorctl/StatusWords.h"

#include <algorithm>

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
        const TJson missing = Part(rules, "missing_groups");
        const bool isMissing = std::find(missing.begin(), missing.end(), group) != missing.end();
        Append(who, "members of the group " + Text({{"name", group}}, "name") +
                        (isMissing ? " (there is none)" : ""));
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
    const TJson number = Part(client, "number_of_types");
    const std::size_t told = Part(client, "types").size();
    if (number.is_number_unsigned() && number > told)
    {
        Append(names, std::to_string(number.get<std::uint64_t>() - told) + " more");
    }
    return names;
}

std::string Heard(const TJson& client)
{
    const bool isListening = Part(client, "listens") == true;
    const TJson heard = Part(client, "heard");
    if (!isListening || !heard.is_boolean())
    {
        return isListening ? "unknown" : "-";
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
