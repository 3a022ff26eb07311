// The control object, with a raw peer for the service.
#include <cstdlib>
#include <cstring>
#include <future>
#include <sstream>
#include <string>
#include <vector>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>

#include <qor/QORDbusClient.h>
#include <qor/api.h>

#include "BusTest.h"
#include "QORControlProxy.h"

namespace
{

using namespace qortest;
using qor::TCControlProxy;

template <class T>
Bytes Archive(const T& value)
{
    std::ostringstream stream;
    boost::archive::binary_oarchive archive(stream);
    archive << value;
    const std::string text = stream.str();
    return Bytes(text.begin(), text.end());
}

std::string PolicyIn(const Bytes& request)
{
    std::istringstream stream(std::string(request.begin() + 5, request.end()));
    boost::archive::binary_iarchive archive(stream);
    std::string policy;
    archive >> policy;
    return policy;
}

Answer Result(int code)
{
    Answer answer{Answer::REPLY, {1}, ""};
    const Bytes archive = Archive(code);
    answer.bytes.insert(answer.bytes.end(), archive.begin(), archive.end());
    return answer;
}

class ControlProxy : public BusTest
{
protected:
    void StartService()
    {
        ASSERT_TRUE(m_service.OwnName(SERVICE_NAME));
    }

    RawPeer m_service;
};

TEST_F(ControlProxy, PolicyTravelsInAnArchiveAndTheCodeComesBack)
{
    StartService();
    TCControlProxy proxy;
    const std::vector<std::string> policies{"", "<policy/>", std::string("a\0b\n\xff", 5),
                                            std::string(5 << 20, 'x')};
    int code = -2;
    for (const std::string& policy : policies)
    {
        m_service.ForgetCalls();
        m_service.AnswerWith(Result(code));
        EXPECT_EQ(proxy.SetPolicy(policy), code);
        const std::vector<IncomingCall> calls = m_service.Calls("Send");
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(Bytes(calls[0].bytes.begin(), calls[0].bytes.begin() + 5), Request(4, false));
        EXPECT_TRUE(PolicyIn(calls[0].bytes) == policy);
        code += 1000;
    }
}

TEST_F(ControlProxy, UnsuccessfulReplyIsMinusOneAndIsNotRead)
{
    StartService();
    TCControlProxy proxy;
    Answer refused = Result(7);
    refused.bytes[0] = 0;
    m_service.AnswerWith(refused);
    EXPECT_EQ(proxy.SetPolicy("p"), -1);
    m_service.AnswerWith({Answer::REPLY, {0, 1, 2, 3}, ""});
    EXPECT_EQ(proxy.SetPolicy("p"), -1);
    m_service.AnswerWith({Answer::ERROR, {}, "org.freedesktop.DBus.Error.Failed"});
    EXPECT_EQ(proxy.SetPolicy("p"), -1);
    m_service.AnswerWith(Result(7));
    EXPECT_EQ(proxy.SetPolicy("p"), 7);
}

TEST_F(ControlProxy, UnreadableReplyThrowsAndTheProxyGoesOn)
{
    StartService();
    TCControlProxy proxy;
    const Bytes whole = Result(7).bytes;
    for (const Bytes& reply :
         {Bytes{1}, Bytes{}, Bytes{1, 2, 3}, Bytes(100, 1), Bytes(whole.begin(), whole.end() - 1)})
    {
        m_service.AnswerWith({Answer::REPLY, reply, ""});
        EXPECT_THROW(proxy.SetPolicy("p"), boost::archive::archive_exception) << reply.size();
    }
    m_service.AnswerWith(Result(7));
    EXPECT_EQ(proxy.SetPolicy("p"), 7);
}

TEST_F(ControlProxy, WithoutAServiceOrABusThePolicyIsNotDelivered)
{
    {
        TCControlProxy proxy;
        EXPECT_EQ(proxy.SetPolicy("p"), -1);
        StartService();
        m_service.AnswerWith(Result(3));
        EXPECT_EQ(proxy.SetPolicy("p"), 3);
        EXPECT_EQ(proxy.SetPolicy(std::string(40 << 20, 'x')), -1); // over the bus's limit
        EXPECT_EQ(proxy.SetPolicy("p"), 3);
    }
    ASSERT_TRUE(SharedConnectionIsLetGo());
    setenv("DBUS_SYSTEM_BUS_ADDRESS", NoBusAddress().c_str(), 1);
    TCControlProxy proxy;
    EXPECT_EQ(proxy.SetPolicy("p"), -1);
}

TEST_F(ControlProxy, ConcurrentPoliciesGetTheirOwnCodes)
{
    StartService();
    TCControlProxy proxy;
    m_service.AnswerUsing([](const IncomingCall& call)
                          { return Result(std::stoi(PolicyIn(call.bytes))); });
    std::vector<std::future<int>> wrong;
    for (int t = 0; t < 4; ++t)
    {
        wrong.push_back(std::async(std::launch::async,
                                   [&proxy, t]
                                   {
                                       int count = 0;
                                       for (int i = 1000 * t; i < 1000 * t + 50; ++i)
                                       {
                                           count += proxy.SetPolicy(std::to_string(i)) == i ? 0 : 1;
                                       }
                                       return count;
                                   }));
    }
    for (std::future<int>& count : wrong)
    {
        EXPECT_EQ(count.get(), 0);
    }
}

// What is final in a process runs in one of its own.

TEST_F(ControlProxy, ThreadsThatAskAtOnceGetOneControlObject)
{
    QORTEST_IN_CHILD({
        std::promise<void> start;
        const std::shared_future<void> started(start.get_future());
        std::vector<std::future<boost::shared_ptr<qor::IControl>>> results;
        for (int i = 0; i < 4; ++i)
        {
            results.push_back(std::async(std::launch::async,
                                         [started]
                                         {
                                             started.wait();
                                             return qor::api::GetControl();
                                         }));
        }
        start.set_value();
        const boost::shared_ptr<qor::IControl> control = results[0].get();
        EXPECT_TRUE(control);
        for (std::size_t i = 1; i < results.size(); ++i)
        {
            EXPECT_EQ(results[i].get(), control);
        }
        EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Working with unique name"), 1U);
        EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Register a new DBUS callback"), 1U);
        EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "DBUS callback already registered"), 3U);
    });
}

TEST_F(ControlProxy, DestroyIsFinalButHoldersKeepAWorkingObject)
{
    QORTEST_IN_CHILD({
        StartService();
        m_service.AnswerWith(Result(9));
        boost::shared_ptr<qor::IControl> control = qor::api::GetControl();
        TCControlProxy::Destroy();
        EXPECT_FALSE(TCControlProxy::Instance());
        EXPECT_FALSE(qor::api::GetControl());
        TCControlProxy::Destroy();
        EXPECT_EQ(control->SetPolicy("p"), 9);
        control.reset();
        EXPECT_TRUE(SharedConnectionIsLetGo());
    });
}

TEST_F(ControlProxy, DestroyBeforeFirstUseForbidsTheObject)
{
    QORTEST_IN_CHILD({
        TCControlProxy::Destroy();
        EXPECT_FALSE(qor::api::GetControl());
        EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Working with unique name"), 0U);
    });
}

TEST_F(ControlProxy, ProcessExitsCleanlyWhileTheObjectIsHeld)
{
    QORTEST_IN_CHILD({
        StartService();
        m_service.AnswerWith(Result(0));
        static boost::shared_ptr<qor::IControl> held = qor::api::GetControl();
        EXPECT_EQ(held->SetPolicy("p"), 0);
    });
}

TEST_F(ControlProxy, ProcessMayExitFromInsideAMessageCallback)
{
    QORTEST_IN_CHILD({
        StartService();
        qor::api::GetControl(); // the teardown lets go of the endpoint that runs the callback
        qor::TCDbusClientProvider::Get(false)->SetCallback(
            2, [](const Bytes&, Bytes&) -> bool { std::exit(0); });
        EXPECT_TRUE(PumpUntil([&] { return m_service.Count("Hello") > 0; }));
        const std::string client = m_service.Calls("Hello")[0].sender;
        m_service.Post(client, SERVICE_PATH, "Send", Request(2, false));
        PumpUntil([] { return false; });
        std::abort(); // the message has not come
    });
}

} // namespace
