// The journal of systemd.
#include "qord/Journal.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <glib.h>
#include <systemd/sd-journal.h>

namespace qord
{
namespace
{

// The library waits as long as the journal's queue is full. A socket that is connected to it can be
// asked first.
int ConnectToJournal()
{
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

bool TakesMore()
{
    static const int s_descriptor = ConnectToJournal();
    pollfd state = {s_descriptor, POLLOUT, 0};
    // Without that socket, or after a restart of the journal, this cannot be known.
    return poll(&state, 1, 0) != 0 || s_descriptor < 0;
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
    std::vector<std::string> all = {"MESSAGE=" + message, "PRIORITY=" + std::to_string(priority),
                                    "SYSLOG_IDENTIFIER=qord"};
    all.insert(all.end(), fields.begin(), fields.end());
    std::vector<iovec> parts;
    parts.reserve(all.size());
    for (std::string& field : all)
    {
        parts.push_back({field.data(), field.size()});
    }
    return TakesMore() && sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) == 0;
}

} // namespace qord
