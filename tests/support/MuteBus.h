// A bus that hangs.
#ifndef QORTEST_MUTEBUS_H
#define QORTEST_MUTEBUS_H

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace qortest
{

/// In the place of a bus: takes connections, and never says a word.
class MuteBus
{
public:
    MuteBus() : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
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
        next < 0 ? void() : m_taken.push_back(next);
        return m_taken.size();
    }

private:
    const std::string m_path = getenv("DBUS_SYSTEM_BUS_ADDRESS") + sizeof "unix:path";
    const int m_socket;
    std::vector<int> m_taken;
};

} // namespace qortest

#endif
