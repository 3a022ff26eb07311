// Who is behind a name on the bus.
#ifndef QORD_SENDER_H
#define QORD_SENDER_H

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <qor/GlibTypes.h>

namespace qord
{

struct TSSender
{
    uid_t m_userId = 0;
    std::string m_userName; ///< The number where the user database has none.
    std::vector<gid_t> m_groups;
    pid_t m_processId = 0; ///< 0 where the bus does not know.
    std::string m_program; ///< What the process calls itself; empty where that cannot be read.
};

/// Asks the bus, of which the answer is proof: nobody else can give it. Groups come from the user
/// database where the bus does not tell them. Blocks until the bus answers, for two seconds at
/// most.
///
/// @param name  a unique name
///
/// @return nothing, with the reason in error, where the bus does not tell or the sender has left
std::optional<TSSender> WhoIs(GDBusConnection* pConnection, const std::string& name,
                              std::string& error);

/// "user 1000 (name), process 812 (program)"
std::string Describe(const TSSender& sender);

} // namespace qord

#endif
