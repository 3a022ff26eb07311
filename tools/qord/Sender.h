// Who is behind a name on the bus, in words.
#ifndef QORD_SENDER_H
#define QORD_SENDER_H

#include <string>

#include <sys/types.h>

#include <qor/IDbusService.h>

#include "qord/UserDatabase.h"

namespace qord
{

struct TSSender
{
    uid_t m_userId = 0;
    /// The number where the user database has none; empty where it was not asked, or has not
    /// answered.
    std::string m_userName;
    pid_t m_processId = 0; ///< 0 where the bus does not know.
    std::string m_program; ///< What the process calls itself; empty where that cannot be read.
};

/// @param peer  whom the bus knows
TSSender SenderOf(const qor::TSPeer& peer);

/// Asks the user database, which may be far away: only for who is about to be shown.
void AskForUserName(TSSender& sender, TCUserDatabase& users,
                    TCUserDatabase::TPatience patience = TCUserDatabase::PATIENCE);

/// Its user's name, or the number where that is not known.
std::string UserOf(const TSSender& sender);

/// "user 1000 (name), process 812 (program)", without a name that is not known.
std::string Describe(const TSSender& sender);

} // namespace qord

#endif
