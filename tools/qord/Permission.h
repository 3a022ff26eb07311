// Who may change the policy, and who may read what the service keeps.
#ifndef QORD_PERMISSION_H
#define QORD_PERMISSION_H

#include <optional>
#include <string>
#include <vector>

#include "qord/Sender.h"

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

    /// @param sender  nothing where it is not known, who may not
    bool MayChange(const std::optional<TSSender>& sender) const;

    /// Those of the groups that somebody has asked for and that do not exist just now.
    std::vector<std::string> MissingGroups() const;

private:
    TSPermissionRules m_rules;
};

} // namespace qord

#endif
