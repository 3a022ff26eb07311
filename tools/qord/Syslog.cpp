// The system's log, for machines without a journal.
#include "qord/Syslog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>

namespace qord
{

bool WriteToSyslog(int priority, const std::string& message)
{
    static const int s_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, _PATH_LOG);
    const std::string line = "<" + std::to_string(LOG_DAEMON | priority) + ">qord[" +
                             std::to_string(getpid()) + "]: " + message;
    return sendto(s_socket, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&address), sizeof address) >= 0;
}

} // namespace qord
