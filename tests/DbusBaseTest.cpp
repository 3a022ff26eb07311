// What both endpoints share, seen from the wire: envelopes, dispatch and answers.
#include <string>

#include <qor/QORDbusClient.h>

#include "BusTest.h"

namespace
{

using namespace qortest;

struct Endpoint : qor::TCDbusClient
{
    Endpoint() : TCDbusClient(false) {}

    // Not analysed: the tests look while nothing changes them.
    std::string CurrentSender() const QOR_NOT_ANALYSED
    {
        return t_currentSender;
    }
    bool IsCurrentMessageAsync() const QOR_NOT_ANALYSED
    {
        return t_isCurrentMessageAsync;
    }

    using TCDbus::t_ConvertBytes;
    using TCDbus::t_objectPath;
};

class DbusBase : public BusTest
{
protected:
    CallResult Send(const Bytes& bytes, int timeoutMs = WATCHDOG_MS)
    {
        return Await(
            m_peer.StartCall(m_endpoint.GetUniqueName(), SERVICE_PATH, "Send", bytes, timeoutMs));
    }

    RawPeer m_peer;
    Endpoint m_endpoint;
};

TEST_F(DbusBase, ReadingWithoutAnEnvelopeAppends)
{
    Bytes bytes{1, 2};
    GVariant* pValue = nullptr;
    m_endpoint.t_ConvertBytes(Bytes{3, 4}, pValue);
    m_endpoint.t_ConvertBytes(qor::TGlibPtr<GVariant>(pValue).get(), bytes);
    EXPECT_EQ(bytes, (Bytes{1, 2, 3, 4}));
}

TEST_F(DbusBase, MessagesAreDispatchedByTypeWithSenderAndFlag)
{
    std::string seen;
    const auto note = [&](const Bytes& in, Bytes& out)
    {
        EXPECT_EQ(m_endpoint.CurrentSender(), m_peer.UniqueName());
        seen = m_endpoint.IsCurrentMessageAsync() ? "async " : "sync ";
        seen += std::to_string(in.size());
        out = {7, 8};
        return false; // and yet the output goes out
    };
    m_endpoint.SetCallback(0, note);
    m_endpoint.SetCallback(1, note);
    LogCapture::Clear();
    const std::tuple<Bytes, Bytes, std::string> cases[] = {
        {Request(1, true, {1, 2, 3}), {0, 7, 8}, "async 3"},
        // Of those that are too short, the last flag and payload do not count again.
        {Bytes{5, 0, 0, 0}, {0, 7, 8}, "sync 0"},
        {Bytes{1, 0, 0, 0, 0x80, 1, 2, 3}, {0, 7, 8}, "async 3"},
        {Bytes{}, {0, 7, 8}, "sync 0"},
        {Request(1, false), {0, 7, 8}, "sync 0"},
        {Request(-77, true, {1, 2}), {0}, ""}};
    for (const auto& [request, reply, expected] : cases)
    {
        seen.clear();
        EXPECT_EQ(Send(request).bytes, reply);
        EXPECT_EQ(seen, expected);
        EXPECT_EQ(m_endpoint.CurrentSender(), "");
    }
    EXPECT_TRUE(m_endpoint.IsCurrentMessageAsync()); // the flag stays
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, ""), 1U); // the short ones are one burst
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Callback for type -77 is not registered"), 1U);
}

TEST_F(DbusBase, OtherMethodsAreAnsweredEmptyAndOtherPathsNotAtAll)
{
    const std::string name = m_endpoint.GetUniqueName();
    EXPECT_EQ(Await(m_peer.StartCall(name, SERVICE_PATH, "Hello", {})).signature, "()");
    m_endpoint.t_objectPath = "/elsewhere"; // the object stays where it was exported
    EXPECT_EQ(Send(Request(1, false), 300).errorCode, G_IO_ERROR_TIMED_OUT);
}

TEST_F(DbusBase, ReplyOverTheLimitIsAnErrorAndTheNextCallSucceeds)
{
    std::size_t size = qor::TCDbus::MaxPayload() + 1;
    const auto fill = [&](const Bytes&, Bytes& out)
    {
        out.resize(size, 0x5A);
        return true;
    };
    m_endpoint.SetCallback(1, fill);
    EXPECT_EQ(Send(Request(1, false)).errorName, "org.freedesktop.DBus.Error.LimitsExceeded");
    --size;
    Bytes whole(size + 1, 0x5A);
    whole[0] = 1;
    EXPECT_TRUE(Send(Request(1, false)).bytes == whole);
}

} // namespace
