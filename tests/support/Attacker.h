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
        if (m_pid == 0)
        {
            m_Run(user);
        }
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
            : index(position), socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0))
        {
            sockaddr_un address{AF_UNIX, {}};
            const std::string path = getenv("DBUS_SYSTEM_BUS_ADDRESS") + sizeof "unix:path";
            path.copy(address.sun_path, sizeof address.sun_path - 1);
            // One that is not taken hangs up.
            connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address);
        }

        std::size_t index;
        int socket;
        std::size_t number = 0; // of messages so far
        std::size_t answers = 0;
        std::string out;         // what is being said
        std::size_t offset = 0;  // in that
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
        std::vector<pollfd> sockets(connections.size(), {-1, 0, POLLOUT});
        while (isUser)
        {
            for (TSConnection& connection : connections)
            {
                pollfd& socket = sockets[connection.index];
                if (socket.revents != 0)
                {
                    m_Step(connection, socket);
                }
            }
            poll(sockets.data(), sockets.size(), -1);
        }
        _exit(1);
    }

    void m_Step(TSConnection& connection, pollfd& socket)
    {
        if ((socket.revents & (POLLHUP | POLLERR)) != 0 || !m_Read(connection))
        {
            close(connection.socket);
            connection = TSConnection(connection.index);
        }
        m_Write(connection);
        const bool isWriting = connection.offset < connection.out.size();
        socket.fd = connection.socket;
        socket.events =
            static_cast<short>((m_IsReading(connection) ? POLLIN : 0) | (isWriting ? POLLOUT : 0));
    }

    bool m_IsReading(const TSConnection& connection) const
    {
        return connection.answers == 0 ||
               (m_attack.open != 0 && connection.answers < m_attack.leavesAfter);
    }

    // Whether there is something to say.
    bool m_SayNext(TSConnection& connection)
    {
        const std::size_t greetings = m_attack.greetings.size(), number = connection.number,
                          question = number - greetings, all = m_attack.questions.size();
        const bool isGreeting = number < greetings,
                   isFree = m_attack.open == 0 || number - connection.answers < m_attack.open,
                   isAsker = connection.index < m_attack.askers && all != 0;
        if (!isGreeting &&
            !(isAsker && isFree && question < m_attack.count && connection.answers != 0))
        {
            return false;
        }
        const auto serial = static_cast<std::uint32_t>(++connection.number);
        connection.out = isGreeting ? m_attack.greetings[number]
                                    : m_attack.questions[(question + connection.index) % all];
        if (number != 0)
        {
            std::memcpy(&connection.out[8], &serial, 4);
        }
        connection.offset = 0;
        m_pSeen->asked += isGreeting ? 0 : 1;
        return true;
    }

    void m_Write(TSConnection& connection)
    {
        ssize_t sent = 1;
        while (sent > 0 && (connection.offset < connection.out.size() || m_SayNext(connection)))
        {
            sent = send(connection.socket, &connection.out[connection.offset],
                        connection.out.size() - connection.offset, MSG_NOSIGNAL);
            connection.offset += sent > 0 ? static_cast<std::size_t>(sent) : 0;
        }
    }

    // Whether the connection goes on.
    bool m_Read(TSConnection& connection)
    {
        static char s_bytes[1 << 18];
        ssize_t size = 1;
        std::string& in = connection.in;
        while (size > 0 && m_IsReading(connection))
        {
            size = recv(connection.socket, s_bytes, sizeof s_bytes, 0);
            in.append(s_bytes, size > 0 ? static_cast<std::size_t>(size) : 0);
            if (!connection.isLoggedIn)
            {
                connection.isLoggedIn = in.find('\n') != std::string::npos;
                connection.rest = connection.isLoggedIn ? in.find('\n') + 1 : in.size();
            }
            while (m_TakeHeader(connection))
            {
            }
            const std::size_t done = std::min(connection.rest, in.size());
            in.erase(0, done);
            connection.rest -= done;
        }
        return size != 0 && connection.answers < m_attack.leavesAfter;
    }

    // The header of one message, if all of it is there. Who reads answers calls, with nothing.
    bool m_TakeHeader(TSConnection& connection)
    {
        std::uint32_t words[4] = {}; // kind, length of the body, serial number, length of the rest
        if (connection.in.size() < connection.rest + sizeof words)
        {
            return false;
        }
        std::memcpy(words, &connection.in[connection.rest], sizeof words);
        const std::size_t size = sizeof words + (words[3] + 7) / 8 * 8;
        const std::string header = connection.in.substr(connection.rest, size);
        if (header.size() < size)
        {
            return false;
        }
        const bool isAnswer = header[1] == 2 || header[1] == 3;
        const bool isCall = header[1] == 1 && (header[2] & 1) == 0; // that wants an answer
        m_pSeen->answered += isAnswer ? 1 : 0;
        connection.answers += isAnswer ? 1 : 0;
        connection.out += isCall && m_attack.open != 0 ? m_Answer(header, words[2]) : "";
        connection.rest += size + words[1];
        return true;
    }

    static std::string m_Answer(const std::string& call, std::uint32_t serial)
    {
        const auto word = [](std::size_t value)
        { return std::string(reinterpret_cast<const char*>(&value), 4); };
        const std::size_t sender = call.find(std::string("\7\1s", 4)) + 4;
        const std::string name = call.substr(sender + 4, static_cast<std::size_t>(call[sender]));
        std::string answer = "l\2\1\1" + word(0) + word(1) + word(17 + name.size()) +
                             std::string("\5\1u", 4) + word(serial) + std::string("\6\1s", 4) +
                             word(name.size()) + name;
        answer.resize((answer.size() + 8) / 8 * 8);
        return answer;
    }

    Attack m_attack;
    TSSeen* const m_pSeen;
    pid_t m_pid = -1;
};

} // namespace qortest

#endif
