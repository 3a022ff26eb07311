// One line at a time to whoever runs the service, from any thread.
#include "qord/Report.h"

#include <cstdarg>
#include <cstdio>

namespace qord
{
namespace
{

__attribute__((format(printf, 2, 0))) void Write(FILE* pStream, const char* format,
                                                 va_list arguments)
{
    flockfile(pStream);
    std::fputs("qord: ", pStream);
    std::vfprintf(pStream, format, arguments);
    std::fputc('\n', pStream);
    std::fflush(pStream);
    funlockfile(pStream);
}

} // namespace

void Report(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Write(stdout, format, arguments);
    va_end(arguments);
}

void ReportError(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Write(stderr, format, arguments);
    va_end(arguments);
}

} // namespace qord
