// A service: takes policies from applications, and tells all of them about each new one.
#include <iostream>
#include <thread>

#include <glib.h>

#include <qor/ICallbacks.h>
#include <qor/PolicyMessage.h>
#include <qor/QORDbusServer.h>

static bool TakePolicy(const qor::TByteArray& request, qor::TByteArray& reply)
{
    std::string_view policy;
    std::string error;
    if (qor::ReadPolicyRequest(request, policy, error) != qor::EPolicyRequest::GOOD)
    {
        std::cerr << "not a policy: " << error << std::endl;
        return false;
    }
    std::cout << "a policy of " << policy.size() << " bytes" << std::endl;
    qor::WritePolicyReply(qor::POLICY_STORED, reply);
    return true;
}

// On a thread of its own, so that an application that is slow to answer holds up no request.
static int Announce(void* pServer)
{
    std::thread(&qor::TCDbusServer::SendMessage, static_cast<qor::TCDbusServer*>(pServer),
                qor::ICallbacks::POLICY_UPDATE, qor::TByteArray(), 2000)
        .detach();
    return G_SOURCE_REMOVE;
}

int main()
{
    qor::TCDbusServer server(false);
    auto onPolicy = [&server](const qor::TByteArray& request, qor::TByteArray& reply)
    {
        // Announced after the reply: a client that waits for one is not called.
        return TakePolicy(request, reply) && g_idle_add(Announce, &server) != 0;
    };
    server.SetCallback(qor::SET_POLICY, onPolicy);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE)); // requests arrive in here
}
