// The lines that the service prints for its administrator.
#ifndef QORD_REPORT_H
#define QORD_REPORT_H

#include <string>
#include <vector>

namespace qord
{

// Under systemd the lines go to the journal, elsewhere to standard output and standard error. A
// line that would have to wait for a reader is dropped, and the next line that is written says how
// many were. A line is cut off if a pipe would not take it in one piece.

/// Sends all further lines to the system's log, with priorities. To be called before the first
/// line.
void ReportToSyslog();

/// Reports success.
void Report(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Reports a failure: priority "err" in the journal, standard error elsewhere.
void ReportError(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// A line with fields of its own for the journal.
///
/// @param fields  "NAME=value" each
void ReportWithFields(bool isError, const std::vector<std::string>& fields,
                      const std::string& line);

} // namespace qord

#endif
