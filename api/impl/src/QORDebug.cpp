// Log sinks, performance markers and assertions.
#include <qor/QORDebug.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string>

#include <perf_marker.h>

#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDebug"

extern "C" char* __progname;

namespace qor
{

namespace
{

constexpr std::size_t BUFFER_SIZE = 256;

// Formats prefix and message into the buffer; what does not fit is cut off.
void FormatLine(char (&buffer)[BUFFER_SIZE], const char* className, const char* function,
                unsigned int line, const char* format, va_list arguments)
{
    const int prefix = snprintf(buffer, BUFFER_SIZE, "QOR >%s:%s:%zu< ", className, function,
                                static_cast<std::size_t>(line));
    const std::size_t used =
        prefix < 0 ? 0 : std::min(static_cast<std::size_t>(prefix), BUFFER_SIZE - 1);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the caller's format is checked at the call
    vsnprintf(buffer + used, BUFFER_SIZE - used, format, arguments);
#pragma GCC diagnostic pop
}

} // namespace

TCDebug::TCDebug() : m_perfLog(false), m_stdoutLog(true), m_fileLog(true), m_pLogFile(nullptr) {}

void TCDebug::EnableFileLog(bool enable)
{
    if (enable && m_pLogFile == nullptr)
    {
        std::string name(__progname);
        std::replace(name.begin(), name.end(), '/', '_');
        char path[BUFFER_SIZE];
        snprintf(path, sizeof path, "/tmp/qor_%s_%d.log", name.c_str(), getpid());
        m_pLogFile = fopen(path, "a+");
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
    FormatLine(buffer, className, function, line, format, arguments);
    va_end(arguments);

    if (m_fileLog && m_pLogFile != nullptr)
    {
        fprintf(m_pLogFile, "%s\n", buffer);
        fflush(m_pLogFile);
    }
    if (m_stdoutLog)
    {
        printf("%s\n", buffer);
    }
}

void TCDebug::Perf(const char* className, const char* function, unsigned int line,
                   const char* format, ...)
{
    char buffer[BUFFER_SIZE];
    va_list arguments;
    va_start(arguments, format);
    FormatLine(buffer, className, function, line, format, arguments);
    va_end(arguments);
    perf_marker(buffer, strlen(buffer));
}

void TCDebug::Assert(const char* file, unsigned int line)
{
    QOR_LOG_ERROR("Error for %s file in line %zu.", file, static_cast<std::size_t>(line));
}

} // namespace qor
