// The common base of the endpoints, seen from the wire.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <boost/thread/lock_types.hpp>

#include <gio/gio.h>

#include <qor/QORDbus.h>

#include "BusTest.h"

namespace
{

using namespace qortest;

class Endpoint : public qor::TCDbus
{
public:
    explicit Endpoint(bool testMode = false) : TCDbus(testMode) {}

    ~Endpoint() override
    {
        t_StopHandlers();
        t_Stop();
    }

    bool Start()
    {
        bool started = false;
        {
            const boost::unique_lock<boost::shared_mutex> lock(t_stateMutex);
            started = t_Start();
        }
        t_LetHandlersRun();
        return started;
    }

    bool SetCallback(int type, const qor::TMessageCallback& callback) override
    {
        return t_callbacks.emplace(type, callback).second;
    }

    bool UnSetCallback(int type) override
    {
        return t_callbacks.erase(type) != 0;
    }

    using TCDbus::t_busName;
    using TCDbus::t_ConvertBytes;
    using TCDbus::t_currentSender;
    using TCDbus::t_isCurrentMessageAsync;
    using TCDbus::t_objectPath;
    using TCDbus::t_SetDbusCallback;
    using TCDbus::t_StopHandlers;
};

using VariantPtr = std::unique_ptr<GVariant, void (*)(GVariant*)>;

VariantPtr Own(GVariant* pFloating)
{
    EXPECT_TRUE(g_variant_is_floating(pFloating));
    return VariantPtr(g_variant_ref_sink(pFloating), &g_variant_unref);
}

VariantPtr Value(const char* text)
{
    return VariantPtr(g_variant_ref_sink(g_variant_new_parsed(text)), &g_variant_unref);
}

Bytes Content(const VariantPtr& pTuple)
{
    EXPECT_STREQ(g_variant_get_type_string(pTuple.get()), "(ay)");
    const VariantPtr pArray(g_variant_get_child_value(pTuple.get(), 0), &g_variant_unref);
    gsize size = 0;
    const auto* const pData =
        static_cast<const unsigned char*>(g_variant_get_fixed_array(pArray.get(), &size, 1));
    return Bytes(pData, pData + size);
}

const char* const ASSERTION = "QORDbus.cpp";

TEST(DbusEnvelope, RequestIsTypeFlagPayload)
{
    const Endpoint endpoint;
    GVariant* pValue = nullptr;
    endpoint.t_ConvertBytes(258, true, Bytes{0xAA, 0xBB}, pValue);
    EXPECT_EQ(Content(Own(pValue)), (Bytes{0x02, 0x01, 0x00, 0x00, 0x01, 0xAA, 0xBB}));

    endpoint.t_ConvertBytes(-2, false, Bytes(), pValue);
    EXPECT_EQ(Content(Own(pValue)), (Bytes{0xFE, 0xFF, 0xFF, 0xFF, 0x00}));
}

TEST(DbusEnvelope, ReplyIsResultOutput)
{
    const Endpoint endpoint;
    GVariant* pValue = nullptr;
    endpoint.t_ConvertBytes(Bytes{7, 8}, true, pValue);
    EXPECT_EQ(Content(Own(pValue)), (Bytes{1, 7, 8}));
    endpoint.t_ConvertBytes(Bytes(), false, pValue);
    EXPECT_EQ(Content(Own(pValue)), (Bytes{0}));
}

TEST(DbusEnvelope, WrappedBytesMayBeEmptyAndUnwrappingAppends)
{
    const Endpoint endpoint;
    GVariant* pValue = nullptr;
    endpoint.t_ConvertBytes(Bytes(), pValue);
    const VariantPtr pEmpty = Own(pValue);
    EXPECT_EQ(Content(pEmpty), Bytes());
    endpoint.t_ConvertBytes(Bytes{3, 4}, pValue);
    const VariantPtr pTwo = Own(pValue);

    Bytes bytes{1, 2};
    endpoint.t_ConvertBytes(pEmpty.get(), bytes);
    endpoint.t_ConvertBytes(pTwo.get(), bytes);
    EXPECT_EQ(bytes, (Bytes{1, 2, 3, 4}));
}

TEST(DbusEnvelope, ReadReplyReplacesTheOutput)
{
    const Endpoint endpoint;
    bool result = false;
    Bytes output{9, 9, 9};
    endpoint.t_ConvertBytes(Value("([byte 7, 5],)").get(), result, output);
    EXPECT_TRUE(result); // any byte but 0
    EXPECT_EQ(output, (Bytes{5}));
    endpoint.t_ConvertBytes(Value("([byte 0],)").get(), result, output);
    EXPECT_FALSE(result);
    EXPECT_EQ(output, Bytes());
}

TEST(DbusEnvelope, WhatIsNoReplyLeavesTheOutputsAlone)
{
    const Endpoint endpoint;
    for (const char* const text : {"(@ay [],)", "('text',)", "@() ()", "([byte 1], 2)", "'text'"})
    {
        SCOPED_TRACE(text);
        LogCapture::Clear();
        bool result = true;
        Bytes output{9};
        endpoint.t_ConvertBytes(Value(text).get(), result, output);
        EXPECT_TRUE(result);
        EXPECT_EQ(output, (Bytes{9}));
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, ASSERTION), 1U);
    }
}

TEST(DbusEnvelope, WhatIsNoRequestLeavesTheOutputsAlone)
{
    const Endpoint endpoint;
    for (const char* const text : {"(@ay [],)", "([byte 1, 0, 0, 0],)", "(uint32 5,)", "'text'"})
    {
        SCOPED_TRACE(text);
        LogCapture::Clear();
        int type = 77;
        bool isAsync = true;
        Bytes payload{9};
        endpoint.t_ConvertBytes(Value(text).get(), type, isAsync, payload);
        EXPECT_EQ(type, 77);
        EXPECT_TRUE(isAsync);
        EXPECT_EQ(payload, (Bytes{9}));
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, ASSERTION), 1U);
    }
}

TEST(DbusEnvelope, ReadRequestTakesSignedTypesAndAnyFlag)
{
    const Endpoint endpoint;
    int type = 0;
    bool isAsync = false;
    Bytes payload{1, 2, 3};
    endpoint.t_ConvertBytes(Value("([byte 0xFE, 0xFF, 0xFF, 0xFF, 0x80, 6],)").get(), type, isAsync,
                            payload);
    EXPECT_EQ(type, -2);
    EXPECT_TRUE(isAsync);
    EXPECT_EQ(payload, (Bytes{6}));
}

class DbusBase : public BusTest
{
protected:
    CallResult Send(Endpoint& endpoint, const Bytes& bytes)
    {
        return Call(endpoint, endpoint.t_objectPath, "Send", bytes);
    }

    CallResult Call(Endpoint& endpoint, const std::string& path, const std::string& method,
                    const Bytes& bytes, int timeoutMs = WATCHDOG_MS)
    {
        return Await(m_peer.StartCall(endpoint.GetUniqueName(), path, method, bytes, timeoutMs));
    }

    RawPeer m_peer;
};

TEST_F(DbusBase, TestModeChangesNameAndPathButNotTheInterface)
{
    Endpoint normal(false);
    Endpoint test(true);
    EXPECT_STREQ(normal.t_busName, SERVICE_NAME);
    EXPECT_STREQ(test.t_busName, TEST_SERVICE_NAME);
    EXPECT_EQ(normal.GetUniqueName(), "");
    ASSERT_TRUE(normal.Start());
    ASSERT_TRUE(test.Start());
    EXPECT_FALSE(normal.IsReady());
    normal.SetCallback(1, [](const Bytes&, Bytes& out) { return out.push_back('n'), true; });
    test.SetCallback(1, [](const Bytes&, Bytes& out) { return out.push_back('t'), true; });
    EXPECT_EQ(Call(normal, SERVICE_PATH, "Send", Request(1, false)).bytes, (Bytes{1, 'n'}));
    EXPECT_EQ(Call(test, TEST_SERVICE_PATH, "Send", Request(1, false)).bytes, (Bytes{1, 't'}));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Working with unique name " + test.GetUniqueName()), 2U);
}

TEST_F(DbusBase, PayloadsOfAllSizesReachTheCallbackAndComeBack)
{
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start());
    endpoint.SetCallback(-5, [](const Bytes& in, Bytes& out) { return out = in, true; });
    for (const std::size_t size : {0UL, 1UL, 1UL << 20, 16UL << 20})
    {
        Bytes payload(size);
        for (std::size_t i = 0; i < size; ++i)
        {
            payload[i] = static_cast<unsigned char>(i * 31 + i / 251);
        }
        const CallResult result = Send(endpoint, Request(-5, false, payload));
        ASSERT_TRUE(result.ok) << size << " " << result.errorName;
        EXPECT_EQ(result.signature, "(ay)");
        Bytes expected{1};
        expected.insert(expected.end(), payload.begin(), payload.end());
        EXPECT_TRUE(result.bytes == expected) << size;
    }
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "->Invoke message handler Send"), 4U);
}

TEST_F(DbusBase, FalseResultCarriesItsOutput)
{
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start());
    endpoint.SetCallback(1, [](const Bytes&, Bytes& out) { return out = {7, 8, 9}, false; });
    EXPECT_EQ(Send(endpoint, Request(1, true)).bytes, (Bytes{0, 7, 8, 9}));
}

TEST_F(DbusBase, TypeWithoutCallbackIsAnsweredFalse)
{
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start());
    EXPECT_EQ(Send(endpoint, Request(-77, false, {1, 2})).bytes, (Bytes{0}));
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Callback for type -77 is not registered"), 1U);
}

TEST_F(DbusBase, ShortRequestIsDispatchedAsTypeZeroSynchronous)
{
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start());
    std::vector<std::size_t> sizes;
    endpoint.SetCallback(0,
                         [&](const Bytes& in, Bytes&)
                         {
                             sizes.push_back(in.size());
                             return !endpoint.t_isCurrentMessageAsync;
                         });
    // A long asynchronous message before each, whose flag and payload must not be taken again.
    for (const Bytes& bytes : {Bytes{}, Bytes{5}, Bytes{5, 0, 0, 0}})
    {
        Send(endpoint, Request(3, true, {1, 2, 3}));
        LogCapture::Clear();
        EXPECT_EQ(Send(endpoint, bytes).bytes, (Bytes{1})) << bytes.size();
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, ASSERTION), 1U);
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{0, 0, 0}));
}

TEST_F(DbusBase, SenderIsKnownDuringTheCallbackOnlyAndTheFlagStays)
{
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start());
    std::string sender;
    bool isAsync = false;
    endpoint.SetCallback(1,
                         [&](const Bytes&, Bytes&)
                         {
                             sender = endpoint.t_currentSender;
                             isAsync = endpoint.t_isCurrentMessageAsync;
                             return true;
                         });
    Send(endpoint, Request(1, true));
    EXPECT_EQ(sender, m_peer.UniqueName());
    EXPECT_TRUE(isAsync);
    EXPECT_EQ(endpoint.t_currentSender, "");
    EXPECT_TRUE(endpoint.t_isCurrentMessageAsync);
    Send(endpoint, Request(1, false));
    EXPECT_FALSE(isAsync);
    EXPECT_EQ(endpoint.t_currentSender, "");
    EXPECT_FALSE(endpoint.t_isCurrentMessageAsync);
}

TEST_F(DbusBase, MethodWithoutHandlerIsAnsweredEmptyAndTheLastHandlerCounts)
{
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start());
    const CallResult unhandled = Call(endpoint, SERVICE_PATH, "Hello", EventList({1}));
    EXPECT_TRUE(unhandled.ok);
    EXPECT_EQ(unhandled.signature, "()");
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "No message handler for Hello"), 1U);

    std::string called;
    for (const char* const name : {"first", "second"})
    {
        endpoint.t_SetDbusCallback(
            "Hello",
            [&called, name](const char*, GVariant*, GDBusMethodInvocation* pInvocation)
            {
                called += name;
                g_dbus_method_invocation_return_value(pInvocation, nullptr);
            });
    }
    EXPECT_TRUE(Call(endpoint, SERVICE_PATH, "Hello", EventList({1})).ok);
    EXPECT_EQ(called, "second");
}

TEST_F(DbusBase, CallForAnotherPathIsNotAnswered)
{
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start());
    endpoint.SetCallback(1, [](const Bytes&, Bytes&) { return true; });
    endpoint.t_objectPath = "/elsewhere"; // the object stays where it was exported
    const CallResult result = Call(endpoint, SERVICE_PATH, "Send", Request(1, false), 500);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.errorCode, G_IO_ERROR_TIMED_OUT);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "->Invoke"), 0U);
}

TEST_F(DbusBase, CallThatFindsNoEndpointIsNotAnswered)
{
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start());
    endpoint.t_StopHandlers();
    const CallResult result = Call(endpoint, SERVICE_PATH, "Send", Request(1, false), 500);
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.errorCode, G_IO_ERROR_TIMED_OUT);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Connection 0x"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ", user_data (nil)"), 1U);
}

TEST_F(DbusBase, ReplyOverTheLimitIsAnErrorAndTheNextCallSucceeds)
{
    Endpoint endpoint;
    ASSERT_TRUE(endpoint.Start());
    std::size_t size = qor::TCDbus::MaxPayload() + 1;
    endpoint.SetCallback(1, [&](const Bytes&, Bytes& out) { return out.resize(size), true; });
    const CallResult refused = Send(endpoint, Request(1, false));
    EXPECT_FALSE(refused.ok);
    EXPECT_EQ(refused.errorName, "org.freedesktop.DBus.Error.LimitsExceeded");
    --size;
    const CallResult largest = Send(endpoint, Request(1, false));
    EXPECT_TRUE(largest.ok) << largest.errorName;
    EXPECT_EQ(largest.bytes.size(), size + 1);
}

TEST_F(DbusBase, SecondObjectAtThePathIsRefused)
{
    Endpoint first;
    ASSERT_TRUE(first.Start());
    {
        Endpoint second;
        EXPECT_FALSE(second.Start());
        EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Registering object error, errno " +
                                                   std::to_string(G_IO_ERROR_EXISTS)),
                  1U);
    }
    first.SetCallback(1, [](const Bytes&, Bytes&) { return true; });
    EXPECT_EQ(Send(first, Request(1, false)).bytes, (Bytes{1}));
}

TEST_F(DbusBase, StartWithoutABusFails)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", NoBusAddress().c_str(), 1);
    Endpoint endpoint;
    EXPECT_FALSE(endpoint.Start());
    EXPECT_EQ(endpoint.GetUniqueName(), "");
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Connecting to system bus error, errno " +
                                               std::to_string(G_IO_ERROR_NOT_FOUND)),
              1U);
}

} // namespace
