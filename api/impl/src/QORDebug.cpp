// Log sinks, performance markers and assertions.
#include <qor/QORDebug.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <string_view>

#include <perf_marker.h>

#include "QORLog.h"
#include "QORSink.h"

#define QOR_LOG_CLASS "qor::TCDebug"

extern "C" char* __progname;

namespace qor
{

namespace
{

constexpr std::size_t BUFFER_SIZE = 256;

// Builds one line in the caller's buffer and cuts off what does not fit. The prefix is put
// together by hand: a formatted print of it would cost as much as that of the message.
class TCLine
{
public:
    explicit TCLine(char (&buffer)[BUFFER_SIZE]) : m_buffer(buffer), m_length(0) {}

    void Format(const char* className, const char* function, unsigned int line, const char* format,
                va_list arguments)
    {
        char digits[std::numeric_limits<unsigned int>::digits10 + 1];
        const char* pEnd = std::to_chars(std::begin(digits), std::end(digits), line).ptr;
        m_Append("QOR >");
        m_Append(className != nullptr ? className : "(null)");
        m_Append(":");
        m_Append(function != nullptr ? function : "(null)");
        m_Append(":");
        m_Append(std::string_view(digits, static_cast<std::size_t>(pEnd - digits)));
        m_Append("< ");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the caller's format is checked at the call
        const int printed =
            std::vsnprintf(m_buffer + m_length, BUFFER_SIZE - m_length, format, arguments);
#pragma GCC diagnostic pop
        if (printed > 0)
        {
            m_length = std::min(m_length + static_cast<std::size_t>(printed), BUFFER_SIZE - 1);
        }
    }

    std::size_t Length() const
    {
        return m_length;
    }

    // The line with its newline, which takes the place of a terminator.
    std::string_view WithNewline()
    {
        m_buffer[m_length] = '\n';
        return std::string_view(m_buffer, m_length + 1);
    }

private:
    void m_Append(std::string_view text)
    {
        const std::size_t taken = std::min(text.size(), BUFFER_SIZE - 1 - m_length);
        std::memcpy(m_buffer + m_length, text.data(), taken);
        m_length += taken;
    }

    char* m_buffer;
    std::size_t m_length;
};

// For hosts whose standard output is for something else, and which cannot be changed.
bool IsStdoutWanted()
{
    const char* wanted = std::getenv("QOR_STDOUT"); // NOLINT(concurrency-mt-unsafe): at load
    return wanted == nullptr || std::strcmp(wanted, "0") != 0;
}

} // namespace

TCDebug::TCDebug()
    : m_perfLog(false), m_stdoutLog(IsStdoutWanted()), m_fileLog(true), m_pLogFile(nullptr)
{
}

void TCDebug::EnableFileLog(bool enable)
{
    if (enable && m_pLogFile == nullptr)
    {
        std::string name(__progname);
        std::replace(name.begin(), name.end(), '/', '_');
        char path[BUFFER_SIZE];
        std::snprintf(path, sizeof path, "/tmp/qor_%s_%d.log", name.c_str(), getpid());
        m_pLogFile = OpenLogFile(path);
        if (m_pLogFile == nullptr)
        {
            __dlog_print(LOG_ID_MAIN, DLOG_INFO, "QOR",
                         "%s: %s(%d) > Unable to create file %s - errno %d", LogBaseName(__FILE__),
                         __FUNCTION__, __LINE__, path, errno);
        }
    }
    m_fileLog = enable;
}

void TCDebug::EnableStdoutLog(bool enable)
{
    m_stdoutLog = enable;
}

void TCDebug::EnablePerfLog(bool enable)
{
    m_perfLog = enable;
}

void TCDebug::External(const char* className, const char* function, unsigned int line,
                       const char* format, ...)
{
    if (!m_stdoutLog && !m_fileLog)
    {
        return;
    }
    char buffer[BUFFER_SIZE];
    va_list arguments;
    va_start(arguments, format);
    TCLine text(buffer);
    text.Format(className, function, line, format, arguments);
    va_end(arguments);

    if (m_fileLog && m_pLogFile != nullptr)
    {
        PrintToFile(m_pLogFile, text.WithNewline());
    }
    if (m_stdoutLog)
    {
        PrintToStdout(text.WithNewline());
    }
}

void TCDebug::Perf(const char* className, const char* function, unsigned int line,
                   const char* format, ...)
{
    char buffer[BUFFER_SIZE];
    va_list arguments;
    va_start(arguments, format);
    TCLine text(buffer);
    text.Format(className, function, line, format, arguments);
    va_end(arguments);
    perf_marker(buffer, text.Length());
}

void TCDebug::Assert(const char* file, unsigned int line)
{
    QOR_LOG_ERROR("Error for %s file in line %zu.", file, static_cast<std::size_t>(line));
}

} // namespace qor
