// The library itself: server, client, and the shortest way to a first answer.
#include <unistd.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <glib.h>

#include <qor/QORDbusClient.h>
#include <qor/QORDbusServer.h>
#include <qor/QORDebug.h>
#include <qor/QORIpcSerializationUtil.h>
#include <qor/api.h>

#include "Archive.h"
#include "Channel.h"
#include "Session.h"

namespace
{

using namespace qorbench;
using TBytes = std::vector<unsigned char>;

// As a quiet application sets it up; the platform log cannot be switched off.
void TurnSinksOff()
{
    qor::TCDebug::m_instance.EnableStdoutLog(false);
    qor::TCDebug::m_instance.EnableFileLog(false);
}

void WaitUntilReady(qor::IDbus& endpoint)
{
    for (int tries = 0; !endpoint.IsReady(); ++tries)
    {
        if (tries == 10000)
        {
            Fail("not ready");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

bool OnSetPolicy(const TBytes& request, TBytes& reply)
{
    const std::string policy = ReadPolicy(request.data(), request.size());
    const std::string result = WriteResult(policy.empty() ? 1 : 0);
    reply.assign(result.begin(), result.end());
    return true;
}

void SendEvents(qor::IDbusServer& server, std::size_t size, std::size_t count, Session& session)
{
    const TBytes payload = Payload(size);
    const std::size_t clients = server.NumberOfClients();
    session.ReplySamples(
        TimeEach(count,
                 [&]
                 {
                     if (server.SendMessage(EVENT_TYPE, payload, CALL_TIMEOUT_MS).first != clients)
                     {
                         Fail("an event was not delivered");
                     }
                 }));
}

// The main thread iterates the context; the commands have a thread of their own.
int Serve()
{
    Session session;
    qor::TCDbusServer server(false);
    server.SetCallback(ROUND_TRIP_TYPE, [](const TBytes&, TBytes&) { return true; });
    server.SetCallback(SET_POLICY_TYPE, &OnSetPolicy);
    std::thread(
        [&]
        {
            WaitUntilReady(server);
            const auto reply = [&](const auto&)
            { session.ReplyNumber("clients", static_cast<double>(server.NumberOfClients())); };
            const auto sendEvents = [&](const auto& words)
            { SendEvents(server, Number(words, 1), Number(words, 2), session); };
            ObeyAll(session, {{"clients", reply}, {"event", sendEvents}});
            _exit(0);
        })
        .detach();
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}

void Call(qor::IDbusClient& client, std::size_t size, std::size_t count, Session& session)
{
    const TBytes payload = Payload(size);
    TBytes response;
    session.ReplySamples(
        TimeEach(count,
                 [&]
                 {
                     if (!client.SendMessage(ROUND_TRIP_TYPE, payload, response, false))
                     {
                         Fail("a call failed");
                     }
                 }));
}

void SetPolicy(qor::IControl& control, std::size_t size, std::size_t count, Session& session)
{
    const std::string policy = PolicyText(size);
    session.ReplySamples(TimeEach(count,
                                  [&]
                                  {
                                      if (control.SetPolicy(policy) != 0)
                                      {
                                          Fail("a policy was not set");
                                      }
                                  }));
}

int RunClient()
{
    Session session;
    const boost::shared_ptr<qor::IControl> control = qor::api::GetControl();
    const boost::shared_ptr<qor::IDbusClient> client = qor::TCDbusClientProvider::Get(false);
    std::thread(
        [&]
        {
            WaitUntilReady(*client);
            const auto call = [&](const auto& words)
            { Call(*client, Number(words, 1), Number(words, 2), session); };
            const auto setPolicy = [&](const auto& words)
            { SetPolicy(*control, Number(words, 1), Number(words, 2), session); };
            ObeyAll(session, {{"call", call}, {"policy", setPolicy}});
            _exit(0);
        })
        .detach();
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}

// What a program does that sends one message and leaves.
int FirstCall()
{
    const boost::shared_ptr<qor::IDbusClient> client = qor::TCDbusClientProvider::Get(false);
    TBytes response;
    if (!client->SendMessage(ROUND_TRIP_TYPE, TBytes(16), response, false))
    {
        Fail("the call failed");
    }
    return write(STDOUT_FILENO, "!", 1) == 1 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    TurnSinksOff();
    const std::string role = argc > 1 ? argv[1] : "";
    if (role == "server")
    {
        return Serve();
    }
    if (role == "client")
    {
        return RunClient();
    }
    if (role == "first-call")
    {
        return FirstCall();
    }
    Fail("usage: server | client | first-call");
}
