// One line at a time to whoever runs the service, from any thread.
#ifndef QORD_REPORT_H
#define QORD_REPORT_H

namespace qord
{

/// To standard output. A line that would have to wait for a reader is dropped, and the next one
/// that goes through says how many were; it is cut off where a pipe would not take it in one piece.
void Report(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// To standard error, likewise.
void ReportError(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace qord

#endif
