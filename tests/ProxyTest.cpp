// The control object and the callbacks object, with a raw peer for the service.
#include <atomic>
#include <cstdlib>
#include <future>
#include <string>
#include <vector>

#include <boost/archive/archive_exception.hpp>
#include <boost/make_shared.hpp>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>
#include <qor/api.h>

#include "BusTest.h"
#include "FaultSupport.h"
#include "QORControlProxy.h"
#include "QORPolicyControlProxy.h"

namespace
{

using namespace qortest;
using qor::TCCallbacksProxy;
using qor::TCControlProxy;

constexpr int POLICY_UPDATE = 2;
constexpr int REQUEST_PROCESS_INFO = 4;

class Proxy : public BusTest
{
protected:
    Proxy()
    {
        EXPECT_TRUE(m_service.OwnName(SERVICE_NAME));
    }

    // Waits until the process's endpoint is ready, and has said its first Hello.
    std::string Endpoint()
    {
        EXPECT_TRUE(PumpUntil([&] { return m_service.Count("Hello") > 0; }));
        return m_service.Calls("Hello").at(0).sender;
    }

    Bytes Fire(int type, const Bytes& payload = {})
    {
        return Await(m_service.StartCall(Endpoint(), SERVICE_PATH, "Send",
                                         Request(type, false, payload)))
            .bytes;
    }

    RawPeer m_service;
};

using ControlProxy = Proxy;
using CallbacksProxy = Proxy;

TEST_F(ControlProxy, BadRepliesFailOrThrowAndTheProxyGoesOn)
{
    TCControlProxy proxy;
    const Bytes whole = PolicyReply(7);
    Bytes refused = whole;
    refused[0] = 0;
    for (const Answer& answer : {Answer{Answer::REPLY, refused, ""},
                                 Answer{Answer::REPLY, {0, 1, 2, 3}, ""}, DbusError("Failed")})
    {
        m_service.AnswerWith(answer);
        EXPECT_EQ(proxy.SetPolicy("p"), -1);
    }
    for (const Bytes& reply :
         {Bytes{1}, Bytes{}, Bytes{1, 2, 3}, Bytes(100, 1), Bytes(whole.begin(), whole.end() - 1)})
    {
        m_service.AnswerWith({Answer::REPLY, reply, ""});
        EXPECT_THROW(proxy.SetPolicy("p"), boost::archive::archive_exception) << reply.size();
    }
    EXPECT_EQ(proxy.SetPolicy(std::string(40 << 20, 'x')), -1); // over the bus's limit
    m_service.AnswerWith({Answer::REPLY, whole, ""});
    EXPECT_EQ(proxy.SetPolicy("p"), 7);
    EXPECT_EQ(m_service.Calls("Send").back().bytes, Request(4, false, Archive("p")));
}

TEST_F(CallbacksProxy, FirstFunctionOfItsTypeIsCalledUntilItIsReset)
{
    const auto proxy = boost::make_shared<TCCallbacksProxy>();
    std::string called;
    EXPECT_TRUE(proxy->SetPolicyUpdateCb([&] { called += "a"; }));
    EXPECT_FALSE(proxy->SetPolicyUpdateCb([&] { called += "b"; }));
    const auto note = [&](const char* name, bool result)
    {
        called += name;
        return result;
    };
    EXPECT_TRUE(proxy->SetRequestProcessInfoCb([&] { return note("c", false); }));
    EXPECT_FALSE(proxy->SetRequestProcessInfoCb([&] { return note("d", true); }));
    EXPECT_EQ(Fire(POLICY_UPDATE, Bytes(1000, 0xFF)), (Bytes{1})); // whatever the bytes
    EXPECT_EQ(Fire(REQUEST_PROCESS_INFO), (Bytes{1})); // true, whatever the function says
    EXPECT_EQ(Fire(3), (Bytes{0}));
    EXPECT_TRUE(proxy->ResetPolicyUpdateCb());
    EXPECT_FALSE(proxy->ResetPolicyUpdateCb());
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{0}));
    EXPECT_EQ(Fire(REQUEST_PROCESS_INFO), (Bytes{1}));
    EXPECT_TRUE(proxy->SetPolicyUpdateCb([&] { called += "e"; }));
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{1}));
    EXPECT_TRUE(proxy->ResetRequestProcessInfoCb());
    EXPECT_EQ(Fire(REQUEST_PROCESS_INFO), (Bytes{0}));
    EXPECT_EQ(called, "acce");
    std::vector<Bytes> hellos;
    for (const IncomingCall& call : m_service.Calls("Hello"))
    {
        hellos.push_back(call.bytes);
    }
    EXPECT_EQ(hellos, (std::vector<Bytes>{EventList({2, 4}), EventList({4}), EventList({2, 4}),
                                          EventList({2})}));
}

TEST_F(CallbacksProxy, EmptyFunctionAsksForTheEventButAnswersFalse)
{
    const auto proxy = boost::make_shared<TCCallbacksProxy>();
    EXPECT_TRUE(proxy->SetPolicyUpdateCb(boost::function<void()>()));
    EXPECT_TRUE(proxy->SetRequestProcessInfoCb(boost::function<bool()>()));
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{0}));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ""), 0U);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Fire(REQUEST_PROCESS_INFO), (Bytes{0}));
    fflush(stdout);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("QOR >qor::TCCallbacksProxy:"),
              std::string::npos);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "m_requestProcessInfoCb is NULL"), 1U);
    EXPECT_EQ(m_service.Calls("Hello")[0].bytes, EventList({2, 4}));
    EXPECT_FALSE(proxy->SetPolicyUpdateCb([] {})); // the endpoint has the type
    EXPECT_TRUE(proxy->ResetPolicyUpdateCb());
    EXPECT_TRUE(proxy->SetPolicyUpdateCb([] {}));
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{1}));
}

TEST_F(CallbacksProxy, EndpointThatLivesOnKeepsItsOwnTypesAndCallsNoProxyThatIsGone)
{
    auto proxy = boost::make_shared<TCCallbacksProxy>();
    const auto endpoint = qor::TCDbusClientProvider::Get(false);
    const auto answer = [](const Bytes&, Bytes& out)
    {
        out = {7};
        return true;
    };
    endpoint->SetCallback(POLICY_UPDATE, answer);
    int calls = 0;
    EXPECT_FALSE(proxy->SetPolicyUpdateCb([&] { ++calls; }));
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{1, 7}));
    EXPECT_TRUE(proxy->ResetPolicyUpdateCb()); // asks the endpoint although nothing is registered
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{0}));
    proxy->SetPolicyUpdateCb([&] { ++calls; });
    const auto count = [&]
    {
        ++calls;
        return true;
    };
    proxy->SetRequestProcessInfoCb(count);
    proxy.reset();
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{0}));
    EXPECT_EQ(Fire(REQUEST_PROCESS_INFO), (Bytes{0}));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(m_service.Calls("Hello").back().bytes, Bytes());
}

TEST_F(CallbacksProxy, ResetReturnsAfterTheRunningFunctionHasFinished)
{
    const auto proxy = boost::make_shared<TCCallbacksProxy>();
    std::atomic<bool> resetting(false);
    std::atomic<bool> finished(false);
    std::future<bool> finishedFirst;
    const auto reset = [&]
    {
        resetting = true;
        return proxy->ResetPolicyUpdateCb() && finished;
    };
    proxy->SetPolicyUpdateCb(
        [&]
        {
            finishedFirst = std::async(std::launch::async, reset);
            // Enough for a reset that does not wait to get past this function.
            WaitUntil([&] { return resetting.load(); });
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            finished = true;
        });
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{1}));
    EXPECT_TRUE(finishedFirst.get());
    EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{0}));
}

// --- What is final in a process runs in one of its own -------------------------------------------

TEST_F(Proxy, DestroyIsFinalButHoldersKeepWorkingObjects)
{
    QORTEST_IN_CHILD({
        m_service.AnswerWith({Answer::REPLY, PolicyReply(9), ""});
        auto other = std::async(std::launch::async, [] { return qor::api::GetControl(); });
        boost::shared_ptr<qor::IControl> control = qor::api::GetControl();
        boost::shared_ptr<qor::ICallbacks> callbacks = TCCallbacksProxy::Instance();
        boost::shared_ptr<qor::IPolicyControl> policyControl = qor::api::GetPolicyControl();
        EXPECT_EQ(qor::api::GetPolicyControl(), policyControl);
        EXPECT_EQ(other.get(), control); // one object for threads that ask at once
        EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Working with unique name"), 1U);
        EXPECT_EQ(TCCallbacksProxy::Instance(), callbacks);
        for (int i = 0; i < 2; ++i)
        {
            TCControlProxy::Destroy();
            TCCallbacksProxy::Destroy();
            qor::TCPolicyControlProxy::Destroy();
        }
        EXPECT_FALSE(qor::api::GetPolicyControl());
        EXPECT_FALSE(TCCallbacksProxy::Instance());
        EXPECT_FALSE(qor::api::GetControl());
        int updates = 0;
        EXPECT_TRUE(callbacks->SetPolicyUpdateCb([&] { ++updates; }));
        EXPECT_EQ(control->SetPolicy("p"), 9);
        EXPECT_EQ(policyControl->SetPolicy("p", WATCHDOG_MS, {}).m_result, 9);
        EXPECT_EQ(Fire(POLICY_UPDATE), (Bytes{1}));
        EXPECT_EQ(updates, 1);
        control.reset();
        policyControl.reset();
        callbacks.reset();
        EXPECT_TRUE(SharedConnectionIsLetGo());
    });
}

// The teardown destroys the endpoint whose callback is running, and nobody else holds it.
TEST_F(Proxy, ProcessMayExitFromInsideACallbackOfTheEndpointThatGoesDown)
{
    QORTEST_IN_CHILD({
        m_service.AnswerWith({Answer::REPLY, PolicyReply(0), ""});
        EXPECT_EQ(qor::api::GetControl()->SetPolicy("p"), 0);
        const auto leave = [](const Bytes&, Bytes&) -> bool { std::exit(HasFailure() ? 1 : 0); };
        qor::TCDbusClientProvider::Get(false)->SetCallback(POLICY_UPDATE, leave);
        m_service.Post(Endpoint(), SERVICE_PATH, "Send", Request(POLICY_UPDATE, false));
        PumpUntil([] { return false; });
        std::abort(); // the message has not come
    });
}

} // namespace
