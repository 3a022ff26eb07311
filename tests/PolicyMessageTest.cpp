// The bytes of the message that hands over a policy, of processes of both word sizes.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/basic_archive.hpp>
#include <gtest/gtest.h>

#include <qor/PolicyMessage.h>

namespace
{

using boost::archive::archive_exception;
using qor::EPolicyRequest;
using qor::TByteArray;
using TVersions = std::vector<std::uint16_t>;

constexpr std::size_t OWN = sizeof(std::size_t);
const std::string SIGNATURE = "serialization::archive";

const auto OWN_VERSION = boost::archive::BOOST_ARCHIVE_VERSION();

// The low bytes of a number come first.
template <class TNumber>
void Append(TByteArray& bytes, TNumber number, std::size_t size = sizeof(TNumber))
{
    const auto* pNumber = reinterpret_cast<const unsigned char*>(&number);
    bytes.insert(bytes.end(), pNumber, pNumber + size);
}

// What a process with words of that size writes before the first value. Before version 8 there were
// some whose field was a byte, which other releases may still write.
TByteArray Header(std::size_t wordSize, std::uint16_t version = 17)
{
    TByteArray bytes;
    Append(bytes, std::uint64_t{SIGNATURE.size()}, wordSize);
    bytes.insert(bytes.end(), SIGNATURE.begin(), SIGNATURE.end());
    Append(bytes, version);
    bytes.resize(bytes.size() - (version < 8 ? 1 : 0));
    bytes.insert(bytes.end(), {4, static_cast<unsigned char>(wordSize), 4, 8});
    Append(bytes, std::int32_t(1));
    return bytes;
}

TByteArray Request(std::size_t wordSize, const std::string& text, std::uint16_t version = 17)
{
    TByteArray bytes = Header(wordSize, version);
    Append(bytes, std::uint64_t{text.size()}, wordSize);
    bytes.insert(bytes.end(), text.begin(), text.end());
    return bytes;
}

TByteArray Reply(TByteArray header, std::int32_t result)
{
    Append(header, result);
    return header;
}

TByteArray Begin(const TByteArray& bytes, std::size_t size)
{
    return TByteArray(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
}

// Why a request is no policy; empty where it is one.
std::string WhyNot(const TByteArray& request)
{
    std::string_view policy = "untouched";
    std::string error;
    const EPolicyRequest found = qor::ReadPolicyRequest(request, policy, error);
    EXPECT_EQ(policy == "untouched", found != EPolicyRequest::GOOD);
    EXPECT_EQ(error.empty(), found == EPolicyRequest::GOOD);
    EXPECT_NE(found, EPolicyRequest::TOO_LARGE);
    return error;
}

// Why a reply cannot be read; negative where it can.
int CodeOf(const TByteArray& reply)
{
    try
    {
        qor::ReadPolicyReply(reply);
        return -1;
    }
    catch (const archive_exception& exception)
    {
        return exception.code;
    }
}

using PolicyMessage = testing::TestWithParam<std::size_t>;

INSTANTIATE_TEST_SUITE_P(WordSizes, PolicyMessage, testing::Values(4U, 8U));

} // namespace

TEST(OwnPolicyMessage, TheLibraryWritesItsOwnSizes)
{
    TByteArray written;
    const std::string text("a\0b\xff\n", 5);
    qor::WritePolicyRequest(text, written);
    EXPECT_EQ(written, Request(OWN, text, OWN_VERSION));
    qor::WritePolicyReply(-7, written);
    EXPECT_EQ(written, Reply(Header(OWN, OWN_VERSION), -7));
}

TEST_P(PolicyMessage, OneWholeTextIsRead)
{
    std::string_view policy;
    std::string error;
    for (const std::string& text :
         {std::string(), std::string("a\0b\xff\n", 5), std::string(5 << 20, 'x')})
    {
        for (const std::uint16_t version : TVersions{3, 7, 8, 17, 18, 19, 255})
        {
            const TByteArray request = Request(GetParam(), text, version);
            EXPECT_EQ(qor::ReadPolicyRequest(request, policy, error, text.size()),
                      EPolicyRequest::GOOD);
            EXPECT_TRUE(policy == text) << text.size() << error;
        }
    }
    policy = "untouched";
    EXPECT_EQ(qor::ReadPolicyRequest(Request(GetParam(), "<policy/>"), policy, error, 8),
              EPolicyRequest::TOO_LARGE);
    EXPECT_EQ(policy, "untouched");
    EXPECT_EQ(error, "its 9 bytes are more than the 8 that are accepted");
}

// Whoever allocates a length that is declared throws, or is ended by a sanitizer.
TEST_P(PolicyMessage, LengthsAreComparedWithWhatHasCome)
{
    const TByteArray header = Header(GetParam());
    const std::uint64_t largest = GetParam() == 4 ? UINT32_MAX : UINT64_MAX;
    // Of 8 bytes the low half alone would be right.
    const std::uint64_t larger = GetParam() == 4 ? 10 : (std::uint64_t(1) << 32) + 9;
    for (const std::uint64_t length : {std::uint64_t(8), larger, largest / 3, largest})
    {
        TByteArray request = header;
        Append(request, length, GetParam());
        const std::string text = "<policy/>";
        request.insert(request.end(), text.begin(), text.end());
        EXPECT_EQ(WhyNot(request),
                  "it declares " + std::to_string(length) + " bytes of text and carries 9");
        TByteArray signature;
        Append(signature, length, GetParam());
        signature.insert(signature.end(), request.begin() + static_cast<long>(GetParam()),
                         request.end());
        EXPECT_EQ(WhyNot(signature), "it does not begin with an archive's signature");
        EXPECT_EQ(CodeOf(signature), archive_exception::invalid_signature) << length;
    }
}

TEST_P(PolicyMessage, EveryPartIsMissed)
{
    const TByteArray request = Request(GetParam(), "<policy/>");
    const std::size_t signature = GetParam() + SIGNATURE.size();
    const std::size_t header = Header(GetParam()).size();
    for (std::size_t size = 0; size < request.size(); ++size)
    {
        // Of exactly that size, so that a sanitizer sees a step beyond its end.
        const std::string error = WhyNot(Begin(request, size));
        const char* expected = size < signature ? "it does not begin with"
                               : size < header  ? "it ends within the archive's header"
                               : size < header + GetParam()
                                   ? "it ends within the length of its text"
                                   : "it declares 9 bytes";
        EXPECT_EQ(error.find(expected), 0U) << size << ": " << error;
    }
}

TEST_P(PolicyMessage, WrongHeadersAreNamed)
{
    const TByteArray request = Request(GetParam(), "<policy/>");
    const std::size_t sizes = GetParam() + SIGNATURE.size() + 2;
    const auto why = [&](std::size_t offset, unsigned char byte)
    {
        TByteArray changed = request;
        changed[offset] = byte;
        EXPECT_THROW(qor::ReadPolicyReply(changed), archive_exception) << offset;
        return WhyNot(changed);
    };
    const std::string word = std::to_string(GetParam());
    const std::string otherWord = std::to_string(12 - GetParam());
    EXPECT_EQ(why(GetParam() + 3, 'X'), "it does not begin with an archive's signature");
    EXPECT_EQ(why(sizes, 2), "its int has 2 bytes, and not 4");
    EXPECT_EQ(why(sizes + 1, static_cast<unsigned char>(12 - GetParam())),
              "its long has " + otherWord + " bytes, and not " + word);
    EXPECT_EQ(why(sizes + 2, 8), "its float has 8 bytes, and not 4");
    EXPECT_EQ(why(sizes + 3, 4), "its double has 4 bytes, and not 8");
    EXPECT_EQ(why(sizes + 5, 1), "its integers have another byte order");
    TByteArray turned = request;
    std::reverse(turned.begin(), turned.begin() + static_cast<long>(GetParam()));
    EXPECT_EQ(WhyNot(turned), "its lengths have another byte order");
    EXPECT_EQ(WhyNot(TByteArray(4096, 0)), "it does not begin with an archive's signature");
}

TEST_P(PolicyMessage, RepliesAreInTheRequestsHeader)
{
    TByteArray reply(100, 'x');
    for (const std::uint16_t version : TVersions{3, 7, 8, 17, 255})
    {
        const TByteArray header = Header(GetParam(), version);
        qor::WritePolicyReply(-7, Request(GetParam(), "<policy/>", version), reply);
        EXPECT_EQ(reply, Reply(header, -7));
        // The sender learns that its text was cut off.
        qor::WritePolicyReply(1000, header, reply);
        EXPECT_EQ(reply, Reply(header, 1000));
    }
    TByteArray both = Request(GetParam(), "<policy/>");
    qor::WritePolicyReply(3, both, both);
    EXPECT_EQ(both, Reply(Header(GetParam()), 3));
    // Who has sent something else gets the service's own kind.
    qor::WritePolicyReply(5, reply);
    const TByteArray own = reply;
    for (const TByteArray& request : {TByteArray(), Begin(both, GetParam() + SIGNATURE.size() + 1)})
    {
        qor::WritePolicyReply(5, request, reply);
        EXPECT_EQ(reply, own);
    }
}

TEST_P(PolicyMessage, RepliesOfBothSizesAreRead)
{
    for (const std::uint16_t version : TVersions{3, 7, 8, OWN_VERSION})
    {
        TByteArray reply = Reply(Header(GetParam(), version), -70000);
        EXPECT_EQ(qor::ReadPolicyReply(reply), -70000);
        for (std::size_t size = 0; size < reply.size(); ++size)
        {
            EXPECT_THROW(qor::ReadPolicyReply(Begin(reply, size)), archive_exception) << size;
        }
        EXPECT_EQ(CodeOf(Begin(reply, reply.size() - 1)), archive_exception::input_stream_error);
        reply.push_back('x');
        EXPECT_EQ(qor::ReadPolicyReply(reply), -70000);
    }
    const auto newer = static_cast<std::uint16_t>(OWN_VERSION + 1);
    EXPECT_EQ(CodeOf(Reply(Header(GetParam(), newer), 0)), archive_exception::unsupported_version);
}
