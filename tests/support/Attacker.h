// A user who attacks the service: a process with many connections, as fast as the bus takes them.
#ifndef QORTEST_ATTACKER_H
#define QORTEST_ATTACKER_H

#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "MainContext.h"

namespace qortest
{

/// Messages are as they go over a socket; serial numbers are put in when they are sent.
struct Attack
{
    std::size_t connections = 1;
    std::size_t open = 0; // calls of a connection without an answer; 0: any, and nothing is read
    std::vector<std::string> questions; // what each connection asks in turn, again and again
    std::size_t count = SIZE_MAX;       // of them, of each connection
    std::vector<std::string> greetings; // what each connection sends before, the bus's Hello first
    std::size_t askers = SIZE_MAX;      // only so many connections ask
    std::size_t leavesAfter = SIZE_MAX; // answers: a connection ends then, and another one begins
};

/// Does that in a process of its own until this object ends.
class Attacker
{
public:
    struct TSSeen
    {
        std::atomic<std::size_t> asked{0};    // questions that the bus has taken
        std::atomic<std::size_t> answered{0}; // calls; of one that reads nothing, the bus's Hello
    };

    /// Waits until the bus has taken the connections.
    Attacker(unsigned int user, Attack attack)
        : m_attack(std::move(attack)),
          m_pSeen(new (mmap(nullptr, sizeof(TSSeen), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0)) TSSeen)
    {
        std::string login("\0AUTH EXTERNAL ", 15);
        for (const char digit : std::to_string(user))
        {
            login += {'3', digit}; // in hexadecimal
        }
        m_attack.greetings.front().insert(0, login + "\r\nBEGIN\r\n");
        m_pid = fork();
        m_pid == 0 ? m_Run(user) : void();
        WaitUntil([&] { return Seen().answered >= m_attack.connections; });
    }
    ~Attacker()
    {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        munmap(m_pSeen, sizeof(TSSeen));
    }

    const TSSeen& Seen() const
    {
        return *m_pSeen;
    }

private:
    struct TSConnection
    {
        explicit TSConnection(std::size_t position)
            : index(position), socket{::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0), 0, 0}
        {
            sockaddr_un address{AF_UNIX, {}};
            const std::string path = getenv("DBUS_SYSTEM_BUS_ADDRESS") + sizeof "unix:path";
            path.copy(address.sun_path, sizeof address.sun_path - 1);
            // One that is not taken hangs up.
            connect(socket.fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        }

        std::size_t index;
        pollfd socket;
        std::size_t number = 0; // of the message that is next
        std::size_t offset = 0; // in it
        std::size_t answers = 0;
        std::string in;          // what has come and has not been looked at
        bool isLoggedIn = false; // which the bus says in a line
        std::size_t rest = 0;    // of the message that comes in
    };

    // Without GLib, whose locks another thread may have held when this process began.
    [[noreturn]] void m_Run(unsigned int user)
    {
        const bool isUser = setgid(user) == 0 && setuid(user) == 0;
        prctl(PR_SET_PDEATHSIG, SIGKILL); // which the new user has cleared
        std::vector<TSConnection> connections;
        for (std::size_t i = 0; i < m_attack.connections; ++i)
        {
            connections.emplace_back(i);
        }
        std::vector<pollfd> sockets(connections.size());
        while (isUser)
        {
            for (TSConnection& connection : connections)
            {
                m_Step(connection, sockets[connection.index].revents);
                sockets[connection.index] = connection.socket;
            }
            poll(sockets.data(), sockets.size(), 100);
        }
        _exit(1);
    }

    void m_Step(TSConnection& connection, int events)
    {
        if ((events & (POLLHUP | POLLERR)) != 0 || !m_Read(connection))
        {
            close(connection.socket.fd);
            connection = TSConnection(connection.index);
        }
        m_Write(connection);
        connection.socket.events = static_cast<short>((m_IsReading(connection) ? POLLIN : 0) |
                                                      (m_Next(connection) ? POLLOUT : 0));
    }

    bool m_IsReading(const TSConnection& connection) const
    {
        return connection.answers == 0 ||
               (m_attack.open != 0 && connection.answers < m_attack.leavesAfter);
    }

    // The message that is due; null where there is none.
    std::string* m_Next(const TSConnection& connection)
    {
        const std::size_t greetings = m_attack.greetings.size(), all = m_attack.questions.size();
        if (connection.number < greetings)
        {
            return &m_attack.greetings[connection.number];
        }
        const std::size_t question = connection.number - greetings,
                          open = connection.number - connection.answers;
        return all == 0 || connection.index >= m_attack.askers || connection.answers == 0 ||
                       question >= m_attack.count || (m_attack.open != 0 && open >= m_attack.open)
                   ? nullptr
                   : &m_attack.questions[(question + connection.index) % all];
    }

    void m_Write(TSConnection& connection)
    {
        while (std::string* const pNext = m_Next(connection))
        {
            const auto serial = static_cast<std::uint32_t>(connection.number + 1);
            connection.number == 0 ? void() : void(std::memcpy(&(*pNext)[8], &serial, 4));
            const ssize_t sent = send(connection.socket.fd, &(*pNext)[connection.offset],
                                      pNext->size() - connection.offset, MSG_NOSIGNAL);
            connection.offset += sent > 0 ? static_cast<std::size_t>(sent) : 0;
            if (connection.offset < pNext->size())
            {
                return; // full, or gone, which poll tells
            }
            connection.offset = 0;
            m_pSeen->asked += connection.number++ < m_attack.greetings.size() ? 0 : 1;
        }
    }

    // Whether the connection goes on. The answers are counted by the headers of messages.
    bool m_Read(TSConnection& connection)
    {
        static char s_bytes[1 << 18];
        ssize_t size = 1;
        std::string& in = connection.in;
        while (size > 0 && m_IsReading(connection))
        {
            size = recv(connection.socket.fd, s_bytes, sizeof s_bytes, 0);
            in.append(s_bytes, size > 0 ? static_cast<std::size_t>(size) : 0);
            if (!connection.isLoggedIn)
            {
                connection.isLoggedIn = in.find('\n') != std::string::npos;
                connection.rest = connection.isLoggedIn ? in.find('\n') + 1 : in.size();
            }
            while (in.size() >= connection.rest + 16)
            {
                std::uint32_t words[4];
                std::memcpy(words, &in[connection.rest], sizeof words);
                const char type = in[connection.rest + 1];
                const std::size_t isAnswer = type == 2 || type == 3; // a result or an error
                m_pSeen->answered += isAnswer;
                connection.answers += isAnswer;
                connection.rest += 16 + words[1] + (words[3] + 7) / 8 * 8; // body, fields
            }
            const std::size_t done = std::min(connection.rest, in.size());
            in.erase(0, done);
            connection.rest -= done;
        }
        return size != 0 && connection.answers < m_attack.leavesAfter;
    }

    Attack m_attack;
    TSSeen* const m_pSeen;
    pid_t m_pid = -1;
};

} // namespace qortest

#endif
