// The clients of the fan-out contest: many connections in one light process. Every contestant sends
// its events to the same ones, so that a difference is the sender's.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

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

struct Clients
{
    Session m_session;
    sd_event* m_event = nullptr;
    std::vector<std::string> m_servers;
    std::vector<sd_bus*> m_connections;
};

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
    Check(sd_bus_attach_event(bus, clients.m_event, SD_EVENT_PRIORITY_NORMAL), "attaching");
    clients.m_connections.push_back(bus);
}

int OnCommand(sd_event_source* /*source*/, int /*fd*/, uint32_t /*events*/, void* data)
{
    auto& clients = *static_cast<Clients*>(data);
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
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Clients clients;
    clients.m_servers.assign(argv + 1, argv + argc);
    Check(sd_event_new(&clients.m_event), "an event loop");
    Check(sd_event_add_io(clients.m_event, nullptr, STDIN_FILENO, 1 /* EPOLLIN */, &OnCommand,
                          &clients),
          "standard input");
    clients.m_session.ReplyReady();
    return sd_event_loop(clients.m_event);
}
