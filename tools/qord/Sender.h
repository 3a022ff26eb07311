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

/// Asks the bus who is behind a name. Its answer is proof: nobody else can give it. Groups come
/// from the user database where the bus does not tell them.
class TCSenders
{
public:
    TCSenders();

    /// Blocks until the bus answers, for two seconds at most. Takes no file descriptor to do so, as
    /// GLib's own synchronous calls do, which end a process that has none left.
    ///
    /// @param name  a unique name
    ///
    /// @return nothing, with the reason in error, where the bus does not tell or the sender left
    std::optional<TSSender> Find(GDBusConnection* pConnection, const std::string& name,
                                 std::string& error);

private:
    qor::TGlibPtr<GVariant> m_Ask(GDBusConnection* pConnection, const std::string& name,
                                  std::string& error);

    qor::TGlibPtr<GMainContext> m_context; ///< Only answers to these questions come through it.
};

/// "user 1000 (name), process 812 (program)"
std::string Describe(const TSSender& sender);

} // namespace qord

#endif
