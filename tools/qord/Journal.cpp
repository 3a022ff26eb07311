// The journal of systemd, in its native protocol.
#include "qord/Journal.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>

#include <glib.h>

namespace qord
{
namespace
{

// A value of more than one line stands behind its length, and not behind its name.
void Append(const std::string& field, std::string& entry)
{
    const std::size_t equals = field.find('=');
    if (equals == std::string::npos || field.find('\n') == std::string::npos)
    {
        entry += field + '\n';
        return;
    }
    const guint64 length = GUINT64_TO_LE(field.size() - equals - 1);
    entry.append(field, 0, equals).append(1, '\n');
    entry.append(reinterpret_cast<const char*>(&length), sizeof length);
    entry.append(field, equals + 1).append(1, '\n');
}

} // namespace

bool IsUnderJournal()
{
    const char* pStream = g_getenv("JOURNAL_STREAM");
    struct stat status;
    return pStream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           pStream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

bool WriteToJournal(int priority, const std::string& message,
                    const std::vector<std::string>& fields)
{
    std::string entry;
    Append("MESSAGE=" + message, entry);
    Append("PRIORITY=" + std::to_string(priority), entry);
    Append("SYSLOG_IDENTIFIER=qord", entry);
    for (const std::string& field : fields)
    {
        Append(field, entry);
    }
    static const int s_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
    return sendto(s_socket, entry.data(), entry.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&address), sizeof address) >= 0;
}

} // namespace qord
