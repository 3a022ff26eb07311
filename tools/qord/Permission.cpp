// Decides which users may change the policy, and which may read the stored policies.
#include "qord/Permission.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

namespace qord
{

TCPermission::TCPermission(TSPermissionRules rules, TCUserDatabase& users)
    : m_rules(std::move(rules)), m_users(users)
{
}

EPermission TCPermission::MayChange(const qor::TSPeer& peer) const
{
    if (!peer.m_isKnown)
    {
        return EPermission::UNKNOWN;
    }
    if (m_rules.m_everyone || peer.m_userId == 0 || peer.m_userId == geteuid())
    {
        return EPermission::GRANTED;
    }
    const auto groups =
        peer.m_hasGroups ? std::optional(peer.m_groupIds) : m_users.GroupsOf(peer.m_userId);
    bool isAnswered = groups.has_value();
    for (auto name = m_rules.m_groups.begin(); groups && name != m_rules.m_groups.end(); ++name)
    {
        const auto id = m_users.GroupId(*name);
        isAnswered = isAnswered && id;
        if (id && !id->empty() &&
            std::find(groups->begin(), groups->end(), id->front()) != groups->end())
        {
            return EPermission::GRANTED;
        }
    }
    return isAnswered ? EPermission::REFUSED : EPermission::UNKNOWN;
}

std::vector<std::string> TCPermission::MissingGroups() const
{
    std::vector<std::string> missing;
    std::copy_if(m_rules.m_groups.begin(), m_rules.m_groups.end(), std::back_inserter(missing),
                 [this](const std::string& name)
                 {
                     const auto id =
                         name == m_rules.m_ownGroup ? std::nullopt : m_users.GroupId(name);
                     return id && id->empty();
                 });
    return missing;
}

} // namespace qord
