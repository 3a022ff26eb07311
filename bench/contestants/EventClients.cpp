// The clients of the fan-out contest: many connections in one light process. Every contestant sends
// its events to the same ones, so that a difference is the sender's.
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>

#include "Channel.h"
#include "Session.h"

namespace
{

using namespace qorbench;

void Check(int result, const char* what)
{
    if (result < 0)
    {
        Fail(std::string(what) + ": " + strerror(-result));
    }
}

// Polled by hand: an event loop that looks at every connection in every turn would cost more than
// all that is measured.
struct Clients
{
    Session m_session;
    int m_epoll = epoll_create1(EPOLL_CLOEXEC);
    std::vector<std::string> m_servers;
    std::vector<sd_bus*> m_connections;
};

void Watch(const Clients& clients, int fd, sd_bus* bus)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.ptr = bus;
    if (epoll_ctl(clients.m_epoll, EPOLL_CTL_ADD, fd, &event) != 0)
    {
        Fail(std::string("epoll: ") + strerror(errno));
    }
}

int OnSend(sd_bus_message* message, void* /*data*/, sd_bus_error* /*error*/)
{
    const unsigned char result = 1;
    sd_bus_message* reply = nullptr;
    Check(sd_bus_message_new_method_return(message, &reply), "a reply");
    Check(sd_bus_message_append_array(reply, 'y', &result, 1), "a result");
    Check(sd_bus_send(nullptr, reply, nullptr), "replying");
    sd_bus_message_unref(reply);
    return 1;
}

const sd_bus_vtable methods[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Send", "ay", "ay", &OnSend, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

void SayHello(sd_bus* bus, const std::string& server)
{
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_method_call(bus, &message, server.c_str(), OBJECT_PATH, INTERFACE_NAME,
                                         HELLO_METHOD),
          "a new message");
    Check(sd_bus_message_append_array(message, 'y', &EVENT_TYPE, sizeof EVENT_TYPE), "the types");
    Check(sd_bus_call(bus, message, 0, nullptr, nullptr), "Hello");
    sd_bus_message_unref(message);
}

void Connect(Clients& clients)
{
    sd_bus* bus = nullptr;
    Check(sd_bus_open_system(&bus), "connecting");
    Check(sd_bus_add_object_vtable(bus, nullptr, OBJECT_PATH, INTERFACE_NAME, methods, nullptr),
          "exporting");
    for (const std::string& server : clients.m_servers)
    {
        SayHello(bus, server);
    }
    Watch(clients, sd_bus_get_fd(bus), bus);
    clients.m_connections.push_back(bus);
}

void ObeyCommand(Clients& clients)
{
    std::vector<std::string> words;
    if (!clients.m_session.Next(words))
    {
        _exit(0);
    }
    const std::size_t wanted = Number(words, 1);
    while (clients.m_connections.size() < wanted)
    {
        Connect(clients);
    }
    clients.m_session.ReplyNumber("clients", static_cast<double>(clients.m_connections.size()));
}

void Answer(sd_bus* bus)
{
    int processed = 1;
    while (processed > 0)
    {
        processed = sd_bus_process(bus, nullptr);
    }
    Check(processed, "processing");
}

} // namespace

int main(int argc, char** argv)
{
    Clients clients;
    clients.m_servers.assign(argv + 1, argv + argc);
    Watch(clients, STDIN_FILENO, nullptr);
    clients.m_session.ReplyReady();
    for (;;)
    {
        epoll_event ready[64];
        const int count = epoll_wait(clients.m_epoll, ready, 64, -1);
        for (int i = 0; i < count; ++i)
        {
            auto* bus = static_cast<sd_bus*>(ready[i].data.ptr);
            if (bus != nullptr)
            {
                Answer(bus);
            }
            else
            {
                ObeyCommand(clients);
            }
        }
    }
}
