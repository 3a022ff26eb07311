// Local sockets of the test: in the place of a log or a service manager, and of a bus that hangs.
#ifndef QORTEST_MUTEBUS_H
#define QORTEST_MUTEBUS_H

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace qortest
{

/// One with that path.
inline int BoundSocket(int type, const std::string& path)
{
    const int bound = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(bound, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    return bound;
}

/// In the place of a bus: takes connections, and never says a word.
class MuteBus
{
public:
    explicit MuteBus(std::string path = getenv("DBUS_SYSTEM_BUS_ADDRESS") + sizeof "unix:path")
        : m_path(std::move(path)), m_socket(BoundSocket(SOCK_STREAM | SOCK_NONBLOCK, m_path))
    {
        EXPECT_EQ(listen(m_socket, 9), 0);
    }
    ~MuteBus()
    {
        std::for_each(m_taken.begin(), m_taken.end(), &close);
        close(m_socket);
        unlink(m_path.c_str());
    }

    std::size_t Connections()
    {
        const int next = accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
        if (next >= 0)
        {
            m_taken.push_back(next);
        }
        return m_taken.size();
    }

private:
    const std::string m_path;
    const int m_socket;
    std::vector<int> m_taken;
};

} // namespace qortest

#endif
