// The floor: a plain Unix socket, with a process between the ends that passes the bytes on.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Channel.h"
#include "Session.h"

namespace
{

using namespace qorbench;

sockaddr_un Address(const char* path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

int Listen(const char* path)
{
    const sockaddr_un address = Address(path);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0 ||
        bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0)
    {
        Fail(std::string("listening: ") + strerror(errno));
    }
    return listener;
}

int ConnectTo(const char* path)
{
    const sockaddr_un address = Address(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    {
        Fail(std::string("connecting: ") + strerror(errno));
    }
    return fd;
}

bool ReadAll(int fd, void* data, std::size_t size)
{
    for (auto* next = static_cast<unsigned char*>(data); size != 0;)
    {
        const ssize_t got = read(fd, next, size);
        if (got <= 0)
        {
            return false;
        }
        next += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

void WriteAll(int fd, const void* data, std::size_t size)
{
    for (auto* next = static_cast<const unsigned char*>(data); size != 0;)
    {
        const ssize_t put = write(fd, next, size);
        if (put <= 0)
        {
            Fail(std::string("writing: ") + strerror(errno));
        }
        next += put;
        size -= static_cast<std::size_t>(put);
    }
}

// A request is its length, then its bytes; a reply is one byte.
int Serve(const char* path)
{
    Session session;
    const int listener = Listen(path);
    session.ReplyReady();
    ExitWithInput();
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    std::vector<unsigned char> request;
    for (std::uint32_t size = 0; ReadAll(fd, &size, sizeof size);)
    {
        request.resize(size);
        if (!ReadAll(fd, request.data(), size))
        {
            break;
        }
        const unsigned char reply = 1;
        WriteAll(fd, &reply, sizeof reply);
    }
    return 0;
}

int Relay(const char* path, const char* serverPath)
{
    Session session;
    const int listener = Listen(path);
    session.ReplyReady();
    ExitWithInput();
    const int fds[] = {accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), ConnectTo(serverPath)};
    std::vector<unsigned char> buffer(256 * 1024);
    for (;;)
    {
        pollfd sources[] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
        poll(sources, 2, -1);
        for (int from = 0; from < 2; ++from)
        {
            if (sources[from].revents == 0)
            {
                continue;
            }
            const ssize_t got = read(fds[from], buffer.data(), buffer.size());
            if (got <= 0)
            {
                return 0;
            }
            WriteAll(fds[1 - from], buffer.data(), static_cast<std::size_t>(got));
        }
    }
}

int RunClient(const char* path)
{
    Session session;
    const int fd = ConnectTo(path);
    return TimeRoundTrips(session,
                          [&](const auto& request)
                          {
                              const auto size = static_cast<std::uint32_t>(request.size());
                              WriteAll(fd, &size, sizeof size);
                              WriteAll(fd, request.data(), request.size());
                              unsigned char reply = 0;
                              if (!ReadAll(fd, &reply, sizeof reply) || reply != 1)
                              {
                                  Fail("a wrong reply");
                              }
                          });
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 3 && std::string(argv[1]) == "relay")
    {
        return Relay(argv[2], argv[3]);
    }
    return PlayRole(argc, argv, {{"server", &Serve}, {"client", &RunClient}});
}
