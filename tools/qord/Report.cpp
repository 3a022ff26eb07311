// One line at a time to whoever runs the service, from any thread.
#include "qord/Report.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace qord
{
namespace
{

class TCStream
{
public:
    explicit TCStream(int descriptor) : m_descriptor(descriptor) {}

    void Write(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::string text;
        if (m_dropped > 0)
        {
            text = "qord: " + std::to_string(m_dropped) + " lines were dropped here\n";
        }
        text += line.substr(0, PIPE_BUF - 1 - text.size()) + '\n';
        m_dropped = m_Take(text) ? 0 : m_dropped + 1;
    }

private:
    // A pipe that can be written to takes so much in one piece, without waiting.
    bool m_Take(const std::string& text) const
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
    std::mutex m_mutex;
    unsigned int m_dropped = 0;
};

__attribute__((format(printf, 1, 0))) std::string Line(const char* format, va_list arguments)
{
    char text[PIPE_BUF];
    std::vsnprintf(text, sizeof text, format, arguments);
    return std::string("qord: ") + text;
}

} // namespace

void Report(const char* format, ...)
{
    static TCStream stream(STDOUT_FILENO);
    va_list arguments;
    va_start(arguments, format);
    stream.Write(Line(format, arguments));
    va_end(arguments);
}

void ReportError(const char* format, ...)
{
    static TCStream stream(STDERR_FILENO);
    va_list arguments;
    va_start(arguments, format);
    stream.Write(Line(format, arguments));
    va_end(arguments);
}

} // namespace qord
