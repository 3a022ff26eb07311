// The user and process of a name on the bus, in words.
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
    /// The number if the user database has no name; empty if the database was not asked, or has not
    /// answered.
    std::string m_userName;
    pid_t m_processId = 0; ///< 0 if the bus does not know it.
    std::string m_program; ///< The process's own name for itself; empty if that cannot be read.
};

/// @param peer  a peer that the bus knows
TSSender SenderOf(const qor::TSPeer& peer);

/// Asks the user database, which may be slow: only for a sender that is about to be shown.
void AskForUserName(TSSender& sender, TCUserDatabase& users,
                    TCUserDatabase::TPatience patience = TCUserDatabase::PATIENCE);

/// The name of the sender's user, or the number if the name is not known.
std::string UserOf(const TSSender& sender);

/// "user 1000 (name), process 812 (program)", without a name that is not known.
std::string Describe(const TSSender& sender);

} // namespace qord

#endif
