// A service that is a raw peer, on a bus that may go away and come back.
#ifndef QORTEST_ENDPOINTFIXTURE_H
#define QORTEST_ENDPOINTFIXTURE_H

#include <future>
#include <memory>
#include <string>

#include <qor/IDbusClient.h>

#include "BusTest.h"

namespace qortest
{

class EndpointLife : public BusTest
{
protected:
    EndpointLife()
    {
        Serve();
    }

    // In a context of its own, which gives back the last connection, also where no other runs.
    void Serve()
    {
        g_main_context_push_thread_default(m_context.get());
        m_service = std::make_unique<RawPeer>();
        ASSERT_TRUE(m_service->OwnName(SERVICE_NAME));
        while (g_main_context_iteration(m_context.get(), FALSE))
        {
        }
        g_main_context_pop_thread_default(m_context.get());
    }

    void RestartBus()
    {
        m_bus.Kill();
        m_bus.Restart();
        Serve();
    }

    static bool Sends(qor::IDbusClient& client)
    {
        Bytes response;
        return client.SendMessage(1, {1}, response, false);
    }

    std::future<CallResult> Event(const std::string& client, int type)
    {
        return m_service->StartCall(client, SERVICE_PATH, "Send", Request(type, false));
    }

    const qor::TGlibPtr<GMainContext> m_context{g_main_context_new()};
    std::unique_ptr<RawPeer> m_service;
};

} // namespace qortest

#endif
