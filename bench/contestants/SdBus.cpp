// sd-bus: server, client and event sender.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
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

sd_bus* Connect()
{
    sd_bus* bus = nullptr;
    Check(sd_bus_open_system(&bus), "connecting");
    return bus;
}

std::vector<unsigned char> Envelope(int type, std::size_t size)
{
    const std::vector<unsigned char> payload = Payload(size);
    std::vector<unsigned char> envelope(REQUEST_HEADER_SIZE + size);
    memcpy(envelope.data(), &type, sizeof type);
    std::copy(payload.begin(), payload.end(), envelope.begin() + REQUEST_HEADER_SIZE);
    return envelope;
}

sd_bus_message* NewSend(sd_bus* bus, const char* destination,
                        const std::vector<unsigned char>& envelope)
{
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_method_call(bus, &message, destination, OBJECT_PATH, INTERFACE_NAME,
                                         SEND_METHOD),
          "a new message");
    Check(sd_bus_message_append_array(message, 'y', envelope.data(), envelope.size()), "a payload");
    return message;
}

bool IsTrue(sd_bus_message* reply)
{
    const void* bytes = nullptr;
    std::size_t size = 0;
    return sd_bus_message_read_array(reply, 'y', &bytes, &size) >= 0 && size == 1 &&
           *static_cast<const unsigned char*>(bytes) == 1;
}

// --- Server --------------------------------------------------------------------------------------

struct Server
{
    Session m_session;
    sd_bus* m_bus = nullptr;
    std::vector<std::string> m_clients;
};

int OnSend(sd_bus_message* message, void* /*data*/, sd_bus_error* /*error*/)
{
    const void* bytes = nullptr;
    std::size_t size = 0;
    Check(sd_bus_message_read_array(message, 'y', &bytes, &size), "a request");
    if (size < REQUEST_HEADER_SIZE)
    {
        Fail("a short request");
    }
    const auto* begin = static_cast<const unsigned char*>(bytes);
    const std::vector<unsigned char> payload(begin + REQUEST_HEADER_SIZE, begin + size);
    const unsigned char result = 1;
    sd_bus_message* reply = nullptr;
    Check(sd_bus_message_new_method_return(message, &reply), "a reply");
    Check(sd_bus_message_append_array(reply, 'y', &result, 1), "a result");
    Check(sd_bus_send(nullptr, reply, nullptr), "replying");
    sd_bus_message_unref(reply);
    return 1;
}

int OnHello(sd_bus_message* message, void* data, sd_bus_error* /*error*/)
{
    static_cast<Server*>(data)->m_clients.emplace_back(sd_bus_message_get_sender(message));
    return sd_bus_reply_method_return(message, "");
}

const sd_bus_vtable methods[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Send", "ay", "ay", &OnSend, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Hello", "ay", "", &OnHello, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

struct Delivery
{
    std::size_t m_pending;
    std::size_t m_succeeded;
};

int OnDelivered(sd_bus_message* reply, void* data, sd_bus_error* /*error*/)
{
    auto* delivery = static_cast<Delivery*>(data);
    --delivery->m_pending;
    if (sd_bus_message_is_method_error(reply, nullptr) == 0 && IsTrue(reply))
    {
        ++delivery->m_succeeded;
    }
    return 1;
}

void SendEvent(Server& server, const std::vector<unsigned char>& envelope)
{
    Delivery delivery = {server.m_clients.size(), 0};
    for (const std::string& client : server.m_clients)
    {
        sd_bus_message* message = NewSend(server.m_bus, client.c_str(), envelope);
        Check(sd_bus_call_async(server.m_bus, nullptr, message, &OnDelivered, &delivery,
                                CALL_TIMEOUT_MS * 1000ULL),
              "sending");
        sd_bus_message_unref(message);
    }
    while (delivery.m_pending != 0)
    {
        const int processed = sd_bus_process(server.m_bus, nullptr);
        Check(processed, "processing");
        if (processed == 0)
        {
            Check(sd_bus_wait(server.m_bus, UINT64_MAX), "waiting");
        }
    }
    if (delivery.m_succeeded != server.m_clients.size())
    {
        Fail("an event was not delivered");
    }
}

void OnCommand(Server& server)
{
    std::vector<std::string> words;
    if (!server.m_session.Next(words))
    {
        _exit(0);
    }
    const auto reply = [&](const auto&)
    { server.m_session.ReplyNumber("clients", static_cast<double>(server.m_clients.size())); };
    const auto sendEvents = [&](const auto& command)
    {
        const std::vector<unsigned char> envelope = Envelope(EVENT_TYPE, Number(command, 1));
        server.m_session.ReplySamples(
            TimeEach(Number(command, 2), [&] { SendEvent(server, envelope); }));
    };
    Obey({{"clients", reply}, {"event", sendEvents}}, words);
}

int Serve(const char* busName)
{
    Server server;
    server.m_bus = Connect();
    Check(sd_bus_add_object_vtable(server.m_bus, nullptr, OBJECT_PATH, INTERFACE_NAME, methods,
                                   &server),
          "exporting");
    Check(sd_bus_request_name(server.m_bus, busName, 0), "the name");
    server.m_session.ReplyReady();
    for (;;)
    {
        const int processed = sd_bus_process(server.m_bus, nullptr);
        Check(processed, "processing");
        if (processed > 0)
        {
            continue;
        }
        pollfd sources[] = {
            {sd_bus_get_fd(server.m_bus), static_cast<short>(sd_bus_get_events(server.m_bus)), 0},
            {STDIN_FILENO, POLLIN, 0}};
        poll(sources, 2, -1);
        if (sources[1].revents != 0)
        {
            OnCommand(server);
        }
    }
}

// --- Client --------------------------------------------------------------------------------------

void Call(sd_bus* bus, const char* busName, const std::vector<unsigned char>& envelope)
{
    sd_bus_message* message = NewSend(bus, busName, envelope);
    sd_bus_message* reply = nullptr;
    Check(sd_bus_call(bus, message, CALL_TIMEOUT_MS * 1000ULL, nullptr, &reply), "calling");
    if (!IsTrue(reply))
    {
        Fail("a wrong reply");
    }
    sd_bus_message_unref(reply);
    sd_bus_message_unref(message);
}

int RunClient(const char* busName)
{
    Session session;
    sd_bus* bus = Connect();
    return TimeRoundTrips(session, [&](const auto& request) { Call(bus, busName, request); });
}

} // namespace

int main(int argc, char** argv)
{
    return PlayRole(argc, argv, {{"server", &Serve}, {"client", &RunClient}});
}
