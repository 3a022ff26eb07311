// sdbus-c++ in its convenience form, as its users write it.
#include <memory>
#include <string>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "Channel.h"
#include "Session.h"

namespace
{

using namespace qorbench;
using TBytes = std::vector<uint8_t>;

// From 2.0 on names have types of their own, and a method is part of a table.
#if SDBUS_CPP_MAJOR >= 2
using TServiceName = sdbus::ServiceName;
#else
using TServiceName = std::string;
#endif

TBytes Answer(const TBytes& /*request*/)
{
    return {1};
}

void AddMethod(sdbus::IObject& object)
{
#if SDBUS_CPP_MAJOR >= 2
    object.addVTable(sdbus::registerMethod(SEND_METHOD).implementedAs(&Answer))
        .forInterface(INTERFACE_NAME);
#else
    object.registerMethod(SEND_METHOD).onInterface(INTERFACE_NAME).implementedAs(&Answer);
    object.finishRegistration();
#endif
}

int Serve(const char* busName)
{
    Session session;
    const std::unique_ptr<sdbus::IConnection> connection =
        sdbus::createSystemBusConnection(TServiceName(busName));
    const std::unique_ptr<sdbus::IObject> object =
        sdbus::createObject(*connection, sdbus::ObjectPath(OBJECT_PATH));
    AddMethod(*object);
    session.ReplyReady();
    ExitWithInput();
    connection->enterEventLoop();
    return 0;
}

int RunClient(const char* busName)
{
    Session session;
    const std::unique_ptr<sdbus::IConnection> connection = sdbus::createSystemBusConnection();
    const std::unique_ptr<sdbus::IProxy> proxy =
        sdbus::createProxy(*connection, TServiceName(busName), sdbus::ObjectPath(OBJECT_PATH));
    return TimeRoundTrips(session,
                          [&](const TBytes& request)
                          {
                              TBytes reply;
                              proxy->callMethod(SEND_METHOD)
                                  .onInterface(INTERFACE_NAME)
                                  .withTimeout(std::chrono::milliseconds(CALL_TIMEOUT_MS))
                                  .withArguments(request)
                                  .storeResultsTo(reply);
                              if (reply != TBytes{1})
                              {
                                  Fail("a wrong reply");
                              }
                          });
}

} // namespace

int main(int argc, char** argv)
try
{
    return PlayRole(argc, argv, {{"server", &Serve}, {"client", &RunClient}});
}
catch (const sdbus::Error& error)
{
    qorbench::Fail(error.what());
}
