// The lines that the service prints for its administrator.
#include "qord/Report.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "qord/Journal.h"
#include "qord/Syslog.h"

namespace qord
{
namespace
{

// A bus that starts services itself gives them no place for their lines.
// NOLINTNEXTLINE(concurrency-mt-unsafe): no thread yet
const bool g_isStartedByBus = std::getenv("DBUS_STARTER_BUS_TYPE") != nullptr;

bool g_isForSyslog = false;

bool IsNullDevice(int descriptor)
{
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && S_ISCHR(status.st_mode) &&
           status.st_rdev == makedev(1, 3);
}

// Where lines of one kind go.
class TCStream
{
public:
    TCStream(int descriptor, int priority)
        : m_descriptor(descriptor),
          m_priority(priority),
          m_isForNobody(g_isStartedByBus && IsNullDevice(descriptor))
    {
    }

    void Write(const std::string& line, const std::vector<std::string>& fields = {})
    {
        static const bool s_isUnderJournal = IsUnderJournal();
        if (m_dropped > 0 &&
            m_Take(std::to_string(m_dropped) + " lines were dropped here", {}, s_isUnderJournal))
        {
            m_dropped = 0;
        }
        m_dropped += m_dropped == 0 && m_Take(line, fields, s_isUnderJournal) ? 0 : 1;
    }

private:
    bool m_Take(const std::string& line, const std::vector<std::string>& fields,
                bool isUnderJournal) const
    {
        if (isUnderJournal && !g_isForSyslog)
        {
            return WriteToJournal(m_priority, line, fields);
        }
        return m_isForNobody || g_isForSyslog
                   ? WriteToSyslog(m_priority, line)
                   : m_TakeText(("qord: " + line).substr(0, PIPE_BUF - 1) + '\n');
    }

    // A pipe that can be written to takes so much in one piece, without waiting.
    bool m_TakeText(const std::string& text) const
    {
        pollfd state = {m_descriptor, POLLOUT, 0};
        if (poll(&state, 1, 0) != 1 || (state.revents & POLLOUT) == 0)
        {
            return false;
        }
        ssize_t count = send(m_descriptor, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == ENOTSOCK)
        {
            count = write(m_descriptor, text.data(), text.size());
        }
        return count >= 0;
    }

    int m_descriptor;
    int m_priority;
    bool m_isForNobody;
    unsigned int m_dropped = 0;
};

TCStream& Stream(bool isError)
{
    static TCStream s_out(STDOUT_FILENO, LOG_INFO);
    static TCStream s_error(STDERR_FILENO, LOG_ERR);
    return isError ? s_error : s_out;
}

__attribute__((format(printf, 1, 0))) std::string Line(const char* format, va_list arguments)
{
    char text[PIPE_BUF];
    std::vsnprintf(text, sizeof text, format, arguments);
    return text;
}

} // namespace

void ReportToSyslog()
{
    g_isForSyslog = true;
}

void Report(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Stream(false).Write(Line(format, arguments));
    va_end(arguments);
}

void ReportError(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Stream(true).Write(Line(format, arguments));
    va_end(arguments);
}

void ReportWithFields(bool isError, const std::vector<std::string>& fields, const std::string& line)
{
    Stream(isError).Write(line, fields);
}

} // namespace qord
