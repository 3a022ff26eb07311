// The callbacks object, with a raw peer for the service.
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>

#include "BusTest.h"

namespace
{

using namespace qortest;
using qor::TCCallbacksProxy;

constexpr int POLICY_UPDATE = 2;
constexpr int REQUEST_PROCESS_INFO = 4;

class CallbacksProxy : public BusTest
{
protected:
    CallbacksProxy()
    {
        EXPECT_TRUE(m_service.OwnName(SERVICE_NAME));
    }

    // A new proxy whose endpoint is ready, and has said its first Hello.
    boost::shared_ptr<TCCallbacksProxy> NewProxy()
    {
        auto pProxy = boost::make_shared<TCCallbacksProxy>();
        EXPECT_TRUE(PumpUntil([&] { return m_service.Count("Hello") > 0; }));
        m_client = m_service.Calls("Hello")[0].sender;
        m_service.ForgetCalls();
        return pProxy;
    }

    Bytes Fire(int type, const Bytes& payload = {})
    {
        return Await(m_service.StartCall(m_client, SERVICE_PATH, "Send",
                                         Request(type, false, payload)))
            .bytes;
    }

    bool HellosAre(const std::vector<Bytes>& expected)
    {
        EXPECT_TRUE(m_service.WaitForCalls("Hello", expected.size()));
        std::vector<Bytes> hellos;
        for (const IncomingCall& call : m_service.Calls("Hello"))
        {
            hellos.push_back(call.bytes);
        }
        m_service.ForgetCalls();
        return hellos == expected;
    }

    RawPeer m_service;
    std::string m_client;
};

TEST_F(CallbacksProxy, FunctionsAreCalledForTheirTypesWhateverTheBytes)
{
    const auto pProxy = NewProxy();
    int updates = 0;
    int requests = 0;
    EXPECT_TRUE(pProxy->SetPolicyUpdateCb([&] { ++updates; }));
    EXPECT_TRUE(pProxy->SetRequestProcessInfoCb([&] { return ++requests, false; }));
    EXPECT_TRUE(HellosAre({EventList({2}), EventList({2, 4})}));
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{1}));
    EXPECT_EQ(Fire(POLICY_UPDATE, Bytes(1000, 0xFF)), (Bytes{1}));
    EXPECT_EQ(updates, 2);
    EXPECT_EQ(requests, 0);
    EXPECT_EQ(Fire(REQUEST_PROCESS_INFO, {1, 2}), (Bytes{1})); // true, whatever the function says
    EXPECT_EQ(requests, 1);
    EXPECT_EQ(updates, 2);
    EXPECT_EQ(Fire(3), (Bytes{0}));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Callback called with id 2"), 2U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Callback called with id 4"), 1U);
}

TEST_F(CallbacksProxy, FirstFunctionStaysUntilItIsReset)
{
    const auto pProxy = NewProxy();
    std::string called;
    EXPECT_TRUE(pProxy->SetPolicyUpdateCb([&] { called += "a"; }));
    EXPECT_FALSE(pProxy->SetPolicyUpdateCb([&] { called += "b"; }));
    Fire(POLICY_UPDATE);
    EXPECT_TRUE(pProxy->ResetPolicyUpdateCb());
    EXPECT_FALSE(pProxy->ResetPolicyUpdateCb());
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{0}));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Callback for type 2 is not registered"), 1U);
    EXPECT_TRUE(pProxy->SetPolicyUpdateCb([&] { called += "c"; }));
    Fire(POLICY_UPDATE);
    EXPECT_EQ(called, "ac");
    EXPECT_TRUE(HellosAre({EventList({2}), {}, EventList({2})}));

    EXPECT_TRUE(pProxy->SetRequestProcessInfoCb([&] { return called += "d", true; }));
    EXPECT_FALSE(pProxy->SetRequestProcessInfoCb([&] { return called += "e", true; }));
    EXPECT_TRUE(pProxy->ResetPolicyUpdateCb()); // the other function is not touched
    Fire(REQUEST_PROCESS_INFO);
    EXPECT_EQ(called, "acd");
    EXPECT_TRUE(pProxy->ResetRequestProcessInfoCb());
    EXPECT_EQ(Fire(REQUEST_PROCESS_INFO), (Bytes{0}));
}

TEST_F(CallbacksProxy, EmptyFunctionAsksForTheEventButAnswersFalse)
{
    const auto pProxy = NewProxy();
    EXPECT_TRUE(pProxy->SetPolicyUpdateCb(boost::function<void()>()));
    EXPECT_TRUE(pProxy->SetRequestProcessInfoCb(boost::function<bool()>()));
    EXPECT_TRUE(HellosAre({EventList({2}), EventList({2, 4})}));
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{0}));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ""), 0U);
    EXPECT_EQ(Fire(REQUEST_PROCESS_INFO), (Bytes{0}));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "m_requestProcessInfoCb is NULL"), 1U);

    int updates = 0;
    EXPECT_FALSE(pProxy->SetPolicyUpdateCb([&] { ++updates; })); // the endpoint has the type
    EXPECT_TRUE(pProxy->ResetPolicyUpdateCb());
    EXPECT_TRUE(pProxy->SetPolicyUpdateCb([&] { ++updates; }));
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{1}));
    EXPECT_EQ(updates, 1);
}

TEST_F(CallbacksProxy, TypeThatTheEndpointHoldsOtherwiseIsRefusedAndReset)
{
    const auto pProxy = NewProxy();
    const boost::shared_ptr<qor::IDbusClient> endpoint = qor::TCDbusClientProvider::Get(false);
    endpoint->SetCallback(POLICY_UPDATE, [](const Bytes&, Bytes& out) { return out = {7}, true; });
    int updates = 0;
    EXPECT_FALSE(pProxy->SetPolicyUpdateCb([&] { ++updates; }));
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{1, 7}));
    EXPECT_TRUE(pProxy->ResetPolicyUpdateCb()); // asks the endpoint although nothing is registered
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{0}));
    EXPECT_EQ(updates, 0);
}

TEST_F(CallbacksProxy, ResetReturnsAfterTheRunningFunctionHasFinished)
{
    const auto pProxy = NewProxy();
    std::atomic<bool> resetting(false);
    std::atomic<bool> finished(false);
    std::future<bool> finishedFirst;
    pProxy->SetPolicyUpdateCb(
        [&]
        {
            finishedFirst = std::async(std::launch::async,
                                       [&]
                                       {
                                           resetting = true;
                                           const bool withdrawn = pProxy->ResetPolicyUpdateCb();
                                           return withdrawn && finished;
                                       });
            // Enough for a reset that does not wait to get past this function.
            WaitUntil([&] { return resetting.load(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            finished = true;
        });
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{1}));
    EXPECT_TRUE(finishedFirst.get());
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{0}));
}

TEST_F(CallbacksProxy, EndpointThatLivesOnDoesNotCallAProxyThatIsGone)
{
    boost::shared_ptr<TCCallbacksProxy> pProxy = NewProxy();
    const boost::shared_ptr<qor::IDbusClient> endpoint = qor::TCDbusClientProvider::Get(false);
    int calls = 0;
    pProxy->SetPolicyUpdateCb([&] { ++calls; });
    pProxy->SetRequestProcessInfoCb([&] { return ++calls, true; });
    pProxy.reset();
    EXPECT_TRUE(HellosAre({EventList({2}), EventList({2, 4}), EventList({4}), {}}));
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{0}));
    EXPECT_EQ(Fire(REQUEST_PROCESS_INFO), (Bytes{0}));
    EXPECT_EQ(calls, 0);
}

TEST_F(CallbacksProxy, DestroyIsFinalButHoldersKeepAWorkingObject)
{
    QORTEST_IN_CHILD({
        boost::shared_ptr<qor::ICallbacks> callbacks = TCCallbacksProxy::Instance();
        EXPECT_EQ(TCCallbacksProxy::Instance(), callbacks);
        TCCallbacksProxy::Destroy();
        TCCallbacksProxy::Destroy();
        EXPECT_FALSE(TCCallbacksProxy::Instance());
        EXPECT_TRUE(PumpUntil([&] { return m_service.Count("Hello") > 0; }));
        m_client = m_service.Calls("Hello")[0].sender;
        int updates = 0;
        EXPECT_TRUE(callbacks->SetPolicyUpdateCb([&] { ++updates; }));
        EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{1}));
        EXPECT_EQ(updates, 1);
        callbacks.reset();
        EXPECT_TRUE(SharedConnectionIsLetGo());
    });
}

TEST_F(CallbacksProxy, ProcessExitsCleanlyWithRegisteredFunctions)
{
    QORTEST_IN_CHILD({
        static int updates = 0;
        TCCallbacksProxy::Instance()->SetPolicyUpdateCb([] { ++updates; });
        EXPECT_TRUE(PumpUntil([&] { return m_service.Count("Hello") > 0; }));
    });
}

} // namespace
