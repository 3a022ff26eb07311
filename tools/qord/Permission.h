// Who may change the policy, and who may read what the service keeps.
#ifndef QORD_PERMISSION_H
#define QORD_PERMISSION_H

#include <string>
#include <vector>

#include <qor/IDbusService.h>

namespace qord
{

struct TSPermissionRules
{
    std::vector<std::string> m_groups; ///< Their members may change the policy.
    std::string m_ownGroup;            ///< The one of them that nobody asked for; may be missing.
    bool m_everyone = false;           ///< So may everybody.
    bool m_restrictReading = false;    ///< Only those who may change the policy may read it.
};

/// Root and the service's own user always may.
class TCPermission
{
public:
    explicit TCPermission(TSPermissionRules rules);

    /// Who is not known may not. Where the bus does not tell groups, the user database is asked.
    bool MayChange(const qor::TSPeer& peer) const;

    /// Those of the groups that somebody has asked for and that do not exist just now.
    std::vector<std::string> MissingGroups() const;

private:
    TSPermissionRules m_rules;
};

} // namespace qord

#endif
