// The platform log of a test program: keeps every line in memory.
#include "LogCapture.h"

#include <pthread.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include <dlog.h>

namespace
{

std::mutex g_mutex;

// A forked child logs too, and finds the lines as no thread was using them.
std::vector<qortest::LogLine>* NewLines()
{
    pthread_atfork([] { g_mutex.lock(); }, [] { g_mutex.unlock(); }, [] { g_mutex.unlock(); });
    return new std::vector<qortest::LogLine>;
}

// Never destroyed: the library also logs while the process's statics go down.
std::vector<qortest::LogLine>& AllLines()
{
    static auto* const pLines = NewLines();
    return *pLines;
}

} // namespace

namespace qortest
{

void LogCapture::Clear()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    AllLines().clear();
}

std::vector<LogLine> LogCapture::Lines()
{
    const std::lock_guard<std::mutex> lock(g_mutex);
    return AllLines();
}

std::size_t LogCapture::Count(int priority, const std::string& messagePart)
{
    std::size_t count = 0;
    for (const LogLine& line : Lines())
    {
        count += line.priority == priority && line.text.find(messagePart) != std::string::npos;
    }
    return count;
}

} // namespace qortest

int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    const int savedErrno = errno;
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::lock_guard<std::mutex> lock(g_mutex);
    AllLines().push_back({log_id, priority, tag, text});
    errno = savedErrno;
    return length;
}
