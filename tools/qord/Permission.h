// Decides which users may change the policy, and which may read the stored policies.
#ifndef QORD_PERMISSION_H
#define QORD_PERMISSION_H

#include <string>
#include <vector>

#include <qor/IDbusService.h>

#include "qord/UserDatabase.h"

namespace qord
{

struct TSPermissionRules
{
    std::vector<std::string> m_groups; ///< Their members may change the policy.
    std::string m_ownGroup;         ///< The build's group; it may be missing without a complaint.
    bool m_everyone = false;        ///< So may everybody.
    bool m_restrictReading = false; ///< Only those who may change the policy may read it.
};

enum class EPermission
{
    REFUSED,
    GRANTED,
    UNKNOWN ///< Just now: the bus or the user database does not answer.
};

/// Root and the service's own user always may. Groups are looked up each time: one may be made
/// while the service runs.
class TCPermission
{
public:
    TCPermission(TSPermissionRules rules, TCUserDatabase& users);

    /// Asks the user database if the bus does not tell the groups.
    EPermission MayChange(const qor::TSPeer& peer) const;

    /// The groups of --allow-group that do not exist at the moment.
    std::vector<std::string> MissingGroups() const;

private:
    TSPermissionRules m_rules;
    TCUserDatabase& m_users;
};

} // namespace qord

#endif
