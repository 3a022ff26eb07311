// Standard output of the tools, which is either written or said to have failed.
#include "common/Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include <glib.h>

namespace tools
{

void GuardStandardStreams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    {
        // Opened the wrong way round: reading and writing fail as they did.
        const int flags = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", flags) != descriptor)
        {
            std::abort(); // the lowest free one is taken, and those below are open
        }
    }
}

void Print(const std::string& text)
{
    const bool isWritten = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (isWritten && std::fflush(stdout) == 0)
    {
        return;
    }
    const int reason = errno;
    if (reason == EPIPE)
    {
        std::signal(SIGPIPE, SIG_DFL);
        std::raise(SIGPIPE);
    }
    throw TCOutputError("standard output: " + std::generic_category().message(reason));
}

bool HasColours()
{
    const char* pNoColour = g_getenv("NO_COLOR");
    const char* pTerminal = g_getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (pNoColour == nullptr || *pNoColour == '\0') &&
           pTerminal != nullptr && std::strcmp(pTerminal, "dumb") != 0;
}

} // namespace tools
