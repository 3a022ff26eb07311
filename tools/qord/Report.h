// One line at a time to whoever runs the service, from any thread.
#ifndef QORD_REPORT_H
#define QORD_REPORT_H

namespace qord
{

/// To standard output, flushed.
void Report(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// To standard error.
void ReportError(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace qord

#endif
