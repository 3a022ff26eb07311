// The system's log, where there is no journal.
#ifndef QORD_SYSLOG_H
#define QORD_SYSLOG_H

#include <string>

namespace qord
{

/// Does not wait where the log takes nothing at the moment, as syslog(3) would.
///
/// @param priority  as syslog has it
///
/// @return false when it was not taken
bool WriteToSyslog(int priority, const std::string& message);

} // namespace qord

#endif
