// Facts about the service, the policy and the applications, as D-Bus values.
#ifndef QORD_POLICYFACTS_H
#define QORD_POLICYFACTS_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <glib.h>

#include <qor/QORDbusServer.h>

#include "qord/Events.h"
#include "qord/Options.h"
#include "qord/PolicyHandler.h"

namespace qord
{

/// Belongs to the thread that iterates the main context. Values that are returned are floating.
class TCPolicyFacts
{
public:
    TCPolicyFacts(const TSOptions& options, TCPolicyHandler& handler, TCEvents& events,
                  const TCPermission& permission, TCUserDatabase& users);

    /// One of the interface's properties.
    ///
    /// @param mayRead  the caller may read the policy; otherwise some properties are null
    GVariant* Property(const std::string& name, bool mayRead, qor::TCDbusServer& server);

    GVariant* Policies();

    /// The applications that the asker may see: its own user's, or all.
    GVariant* Clients(const TSAsker& asker, qor::TCDbusServer& server);

    /// The hash of the policy in force; empty if there is no policy.
    const std::string& HashInForce();

    /// The facts about the policy in force that the signal carries.
    GVariant* Details();

    /// One line for the service manager.
    std::string Summary(qor::TCDbusServer& server);

private:
    // As it was when the file was last looked at.
    struct TSInForce
    {
        bool m_isThere = false;
        bool m_isGood = false;
        struct stat m_file = {};
        TCPolicyHistory::TSEntry m_entry;
    };

    using TServer = qor::TCDbusServer;
    using TFacts = std::map<std::string, std::function<GVariant*(TCPolicyFacts&, TServer&)>>;

    static const TFacts& m_OfService();
    static const TFacts& m_OfPolicy();
    const TSInForce& m_Look();
    GVariant* m_MayChange() const;
    std::vector<std::string> m_Problems(bool isDetailed, qor::TCDbusServer& server);
    std::string m_Suspended(bool isDetailed, qor::TCDbusServer& server);

    const TSOptions& m_options;
    TCPolicyHandler& m_handler;
    TCEvents& m_events;
    const TCPermission& m_permission;
    TCUserDatabase& m_users;
    std::string m_policyFile; ///< Absolute, because callers have other working directories.
    std::int64_t m_upSince;
    TSInForce m_inForce;
};

/// The applications that have not heard of an event, as entries of an array of a{sv}.
GVariant* NotHeard(const std::vector<TSMissed>& missed);

} // namespace qord

#endif
