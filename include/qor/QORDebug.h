// Log sinks, performance markers and assertions of the library and its hosts.
#ifndef QOR_QORDEBUG_H
#define QOR_QORDEBUG_H

#include <cstdio>

#include <qor/Export.h>

namespace qor
{

/// The log settings of the process, and the sinks beside the platform log.
///
/// Every log line of the library goes to the platform log (tag "QOR"). If switched on here it also
/// goes to standard output (on in a fresh process, unless QOR_STDOUT=0 is in its environment)
/// and to the per-process log file /tmp/qor_NAME_PID.log (once EnableFileLog(true) has opened it).
///
/// If a sink fails, the line is dropped, and neither SIGPIPE nor SIGXFSZ reaches the process. If a
/// sink is full, such as a pipe, the thread that logs blocks.
///
/// No function takes a lock. Lines of several threads do not mix, but changing a setting while
/// other threads log is not synchronised: change settings before threads start. No function throws.
class QOR_API TCDebug
{
public:
    TCDebug();

    /// Switches the log file on or off. The first call with true opens the file for appending; it
    /// then stays open until the process ends, and a later call with true goes on with it. Programs
    /// that the process starts do not inherit it. Only a regular file of this user with no other
    /// name is opened, no link, pipe or file of somebody else. A file that is not opened is
    /// reported to the platform log, and a later call tries again.
    void EnableFileLog(bool enable);

    /// Switches the lines on standard output on or off.
    void EnableStdoutLog(bool enable);

    /// Switches performance markers on or off. Perf does not check this itself; its callers do.
    void EnablePerfLog(bool enable);

    /// Formats one line, "QOR >CLASS:FUNCTION:LINE< MESSAGE", of at most 255 characters (the rest
    /// is cut off) and writes it to the enabled sinks: the file (flushed), then standard output
    /// (not flushed). Does nothing when both are off. Allocates nothing.
    void External(const char* className, const char* function, unsigned int line,
                  const char* format, ...) __attribute__((format(printf, 5, 6)));

    /// Formats a line like External and hands it to the kernel as a performance marker (prctl
    /// option 666, no newline). A kernel without that facility is ignored.
    void Perf(const char* className, const char* function, unsigned int line, const char* format,
              ...) __attribute__((format(printf, 5, 6)));

    /// Reports a failed check at the given source file and line to the platform log and to the
    /// enabled sinks, and returns: the caller goes on with its own failure path.
    void Assert(const char* file, unsigned int line);

    bool m_perfLog;   ///< Performance markers are wanted.
    bool m_stdoutLog; ///< Lines go to standard output.
    bool m_fileLog;   ///< Lines go to the log file, once it is open.
    FILE* m_pLogFile; ///< The open log file, or null. Never closed here.

    /// The settings of this process. Never destroyed.
    static TCDebug m_instance;
};

} // namespace qor

#endif
