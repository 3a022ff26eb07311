// Who may change the policy, and who may read what the service keeps.
#include "qord/Permission.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
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

std::vector<gid_t> GroupsOfDatabase(uid_t userId)
{
    passwd entry = {};
    passwd* pFound = nullptr;
    char buffer[4096];
    getpwuid_r(userId, &entry, buffer, sizeof buffer, &pFound);
    if (pFound == nullptr)
    {
        return {};
    }
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0)
    {
        groups.resize(static_cast<std::size_t>(count));
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

} // namespace

TCPermission::TCPermission(TSPermissionRules rules) : m_rules(std::move(rules)) {}

bool TCPermission::MayChange(const qor::TSPeer& peer) const
{
    if (!peer.m_isKnown)
    {
        return false;
    }
    if (m_rules.m_everyone || peer.m_userId == 0 || peer.m_userId == geteuid())
    {
        return true;
    }
    const std::vector<gid_t> groups =
        peer.m_hasGroups ? peer.m_groupIds : GroupsOfDatabase(peer.m_userId);
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
