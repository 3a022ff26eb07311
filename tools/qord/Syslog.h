// The system's log, for machines without a journal.
#ifndef QORD_SYSLOG_H
#define QORD_SYSLOG_H

#include <string>

namespace qord
{

/// Does not wait if the log does not read at the moment, as syslog(3) would.
///
/// @param priority  as syslog has it
///
/// @return false if the log has not taken the line
bool WriteToSyslog(int priority, const std::string& message);

} // namespace qord

#endif
