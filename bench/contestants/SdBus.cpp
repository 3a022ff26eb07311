// sd-bus: server and client.
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

// --- Server --------------------------------------------------------------------------------------

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

const sd_bus_vtable methods[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Send", "ay", "ay", &OnSend, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

int Serve(const char* busName)
{
    Session session;
    sd_bus* bus = Connect();
    Check(sd_bus_add_object_vtable(bus, nullptr, OBJECT_PATH, INTERFACE_NAME, methods, nullptr),
          "exporting");
    Check(sd_bus_request_name(bus, busName, 0), "the name");
    session.ReplyReady();
    ExitWithInput();
    for (;;)
    {
        const int processed = sd_bus_process(bus, nullptr);
        Check(processed, "processing");
        if (processed == 0)
        {
            Check(sd_bus_wait(bus, UINT64_MAX), "waiting");
        }
    }
}

// --- Client --------------------------------------------------------------------------------------

void Call(sd_bus* bus, const char* busName, const std::vector<unsigned char>& envelope)
{
    sd_bus_message* message = nullptr;
    Check(sd_bus_message_new_method_call(bus, &message, busName, OBJECT_PATH, INTERFACE_NAME,
                                         SEND_METHOD),
          "a new message");
    Check(sd_bus_message_append_array(message, 'y', envelope.data(), envelope.size()), "a payload");
    sd_bus_message* reply = nullptr;
    Check(sd_bus_call(bus, message, CALL_TIMEOUT_MS * 1000ULL, nullptr, &reply), "calling");
    const void* bytes = nullptr;
    std::size_t size = 0;
    Check(sd_bus_message_read_array(reply, 'y', &bytes, &size), "a reply");
    if (size != 1 || *static_cast<const unsigned char*>(bytes) != 1)
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
