// A service: takes policies from applications, and tells all of them about each new one.
#include <iostream>
#include <thread>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>
#include <glib.h>

#include <qor/ICallbacks.h>
#include <qor/QORDbusServer.h>
#include <qor/QORIpcSerializationUtil.h>

static bool TakePolicy(const qor::TByteArray& request, qor::TByteArray& reply)
try
{
    std::stringstream in, out;
    std::string policy;
    qor::TCIpcSerializationUtil::ConvertData(request, in);
    boost::archive::binary_iarchive(in) >> policy;
    std::cout << "a policy of " << policy.size() << " bytes" << std::endl;
    boost::archive::binary_oarchive(out) << 0; // the result code
    qor::TCIpcSerializationUtil::ConvertData(out, reply);
    return true;
}
catch (const std::exception&)
{
    return false; // not a policy; nothing may be thrown out of here
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
    server.SetCallback(4, onPolicy);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE)); // requests arrive in here
}
