// Who may change the policy, and who may read what the service keeps.
#include "qord/Permission.h"

#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

namespace qord
{
namespace
{

// Looked up each time: a group may be made while the service runs. One that cannot be looked up has
// no members.
std::optional<gid_t> GroupId(const std::string& name)
{
    group entry = {};
    group* pFound = nullptr;
    std::vector<char> buffer(4096); // a group may have any number of members
    while (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &pFound) == ERANGE)
    {
        buffer.resize(buffer.size() * 2);
    }
    return pFound == nullptr ? std::nullopt : std::optional<gid_t>(entry.gr_gid);
}

} // namespace

TCPermission::TCPermission(TSPermissionRules rules) : m_rules(std::move(rules)) {}

bool TCPermission::MayChange(const std::optional<TSSender>& sender) const
{
    if (!sender)
    {
        return false;
    }
    if (m_rules.m_everyone || sender->m_userId == 0 || sender->m_userId == geteuid())
    {
        return true;
    }
    const std::vector<gid_t>& groups = sender->m_groups;
    return std::any_of(m_rules.m_groups.begin(), m_rules.m_groups.end(),
                       [&groups](const std::string& name)
                       {
                           const auto id = GroupId(name);
                           return id &&
                                  std::find(groups.begin(), groups.end(), *id) != groups.end();
                       });
}

std::vector<std::string> TCPermission::MissingGroups() const
{
    std::vector<std::string> missing;
    std::copy_if(m_rules.m_groups.begin(), m_rules.m_groups.end(), std::back_inserter(missing),
                 [this](const std::string& name)
                 { return name != m_rules.m_ownGroup && !GroupId(name); });
    return missing;
}

} // namespace qord
