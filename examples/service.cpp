// A service: takes policies from applications, and tells all of them about each new one.
#include <iostream>
#include <thread>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>
#include <glib.h>

#include <qor/ICallbacks.h>
#include <qor/QORDbusServer.h>
#include <qor/QORDebug.h>
#include <qor/QORIpcSerializationUtil.h>

static bool TakePolicy(const qor::TByteArray& request, qor::TByteArray& reply)
try
{
    std::stringstream in;
    std::stringstream out;
    std::string policy;
    qor::TCIpcSerializationUtil::ConvertData(request, in);
    boost::archive::binary_iarchive(in) >> policy;
    std::cout << "a policy of " << policy.size() << " bytes" << std::endl;
    boost::archive::binary_oarchive(out) << 0;
    qor::TCIpcSerializationUtil::ConvertData(out, reply);
    return true;
}
catch (const std::exception&)
{
    return false; // not a policy; nothing may be thrown out of here
}

// A thread of its own: an application that is slow to answer must not hold up the requests.
static int Announce(void* pServer)
{
    auto* pOurs = static_cast<qor::TCDbusServer*>(pServer);
    std::thread([pOurs] { pOurs->SendMessage(qor::ICallbacks::POLICY_UPDATE, {}, 2000); }).detach();
    return G_SOURCE_REMOVE;
}

int main()
{
    qor::TCDebug::m_instance.EnableStdoutLog(false); // the platform log has the lines anyway
    qor::TCDbusServer server(false);
    server.SetCallback(4,
                       [&server](const qor::TByteArray& request, qor::TByteArray& reply)
                       {
                           const bool taken = TakePolicy(request, reply);
                           if (taken) // announced after the reply: who waits for one is not called
                           {
                               g_idle_add(Announce, &server);
                           }
                           return taken;
                       });
    g_main_loop_run(g_main_loop_new(nullptr, FALSE)); // requests arrive in here
}
