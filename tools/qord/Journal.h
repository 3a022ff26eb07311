// The journal of systemd.
#ifndef QORD_JOURNAL_H
#define QORD_JOURNAL_H

#include <string>
#include <vector>

namespace qord
{

/// Whether the service manager has connected this process's standard error with the journal.
bool IsUnderJournal();

/// Does not wait if the journal does not read at the moment.
///
/// @param priority  as syslog has it
/// @param fields    "NAME=value" each
///
/// @return false if the journal has not taken the line
bool WriteToJournal(int priority, const std::string& message,
                    const std::vector<std::string>& fields);

} // namespace qord

#endif
