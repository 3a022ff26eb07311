// The log statements: every line of the library is written through one of these two forms.
#ifndef QOR_QORLOG_H
#define QOR_QORLOG_H

#include <cstddef>

#include <dlog.h>

#include <qor/QORDebug.h>

namespace qor
{

constexpr const char* LogBaseName(const char* path)
{
    const char* base = path;
    for (const char* p = path; *p != '\0'; ++p)
    {
        if (*p == '/')
        {
            base = p + 1;
        }
    }
    return base;
}

} // namespace qor

// The platform log gets the source file, the sinks of TCDebug get the class. A unit names its
// class by defining QOR_LOG_CLASS.
#define QOR_LOG_STATEMENT(priority, className, format, ...)                                        \
    do                                                                                             \
    {                                                                                              \
        static constexpr const char* qorLogFile = ::qor::LogBaseName(__FILE__);                    \
        constexpr int qorLogLine = __LINE__;                                                       \
        __dlog_print(LOG_ID_SYSTEM, priority, "QOR", "%s: %s(%d) > " format, qorLogFile,           \
                     __FUNCTION__, qorLogLine, ##__VA_ARGS__);                                     \
        ::qor::TCDebug& qorLogSinks = ::qor::TCDebug::m_instance;                                  \
        if (qorLogSinks.m_stdoutLog || qorLogSinks.m_fileLog)                                      \
        {                                                                                          \
            qorLogSinks.External(className, __FUNCTION__, qorLogLine, format, ##__VA_ARGS__);      \
        }                                                                                          \
    } while (false)

#define QOR_LOG_DEBUG(format, ...)                                                                 \
    QOR_LOG_STATEMENT(DLOG_DEBUG, QOR_LOG_CLASS, format, ##__VA_ARGS__)
#define QOR_LOG_ERROR(format, ...)                                                                 \
    QOR_LOG_STATEMENT(DLOG_ERROR, QOR_LOG_CLASS, format, ##__VA_ARGS__)

// Reports a failed check at this place; the caller goes on with its own failure path.
#define QOR_ASSERT_FAILED() ::qor::TCDebug::m_instance.Assert(__FILE__, __LINE__)

#endif
