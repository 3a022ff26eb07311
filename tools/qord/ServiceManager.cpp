// What this process tells the service manager that runs it.
#include "qord/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstring>

#include <glib.h>

namespace qord
{
namespace
{

// 0 where it is not set, or not a number.
guint64 Number(const char* variable)
{
    const char* text = g_getenv(variable);
    guint64 number = 0;
    return text != nullptr &&
                   g_ascii_string_to_unsigned(text, 10, 0, G_MAXUINT64, &number, nullptr) != FALSE
               ? number
               : 0;
}

} // namespace

bool HasServiceManager()
{
    return g_getenv("NOTIFY_SOCKET") != nullptr;
}

void TellServiceManager(const std::string& lines)
{
    const char* name = g_getenv("NOTIFY_SOCKET");
    sockaddr_un address = {};
    const std::size_t length = name != nullptr ? std::strlen(name) : 0;
    if (length < 2 || length >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@'))
    {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name, length);
    if (name[0] == '@')
    {
        address.sun_path[0] = '\0'; // a name that is in no directory
    }
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sendto(descriptor, lines.data(), lines.size(), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&address),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    close(descriptor);
}

unsigned int ToleratedSilenceMs()
{
    const guint64 process = Number("WATCHDOG_PID");
    const bool isMeant = process == 0 || process == static_cast<guint64>(getpid());
    const guint64 limit = Number("WATCHDOG_USEC") / 1000;
    return isMeant && limit <= UINT_MAX ? static_cast<unsigned int>(limit) : 0;
}

} // namespace qord
