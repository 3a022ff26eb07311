// Policy requests as the library writes them, and as an attacker would.
#include <limits>
#include <sstream>
#include <string>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "qord/PolicyRequest.h"
#include <qor/QORIpcSerializationUtil.h>

namespace
{

qor::TByteArray Archive(const std::string& text)
{
    std::stringstream stream;
    boost::archive::binary_oarchive archive(stream);
    archive << text;
    qor::TByteArray bytes;
    qor::TCIpcSerializationUtil::ConvertData(stream, bytes);
    return bytes;
}

void PutLength(qor::TByteArray& bytes, std::size_t offset, std::size_t length)
{
    std::memcpy(bytes.data() + offset, &length, sizeof length);
}

bool IsRefused(const qor::TByteArray& request)
{
    std::string policy = "untouched";
    std::string error;
    return !qord::DecodePolicyRequest(request, policy, error) && policy == "untouched" &&
           !error.empty();
}

TEST(PolicyRequest, TextComesBackByteByByte)
{
    const std::string zeros("a\0b\xff\n", 5);
    for (const std::string& text :
         {std::string(), std::string("<a/>"), zeros, std::string(5 * 1024 * 1024, 'x')})
    {
        std::string policy = "old";
        std::string error;
        EXPECT_TRUE(qord::DecodePolicyRequest(Archive(text), policy, error)) << error;
        EXPECT_EQ(policy, text);
    }
}

TEST(PolicyRequest, EveryTruncationAndTrailingByteIsRefused)
{
    const qor::TByteArray request = Archive("<policy/>");
    for (std::size_t size = 0; size < request.size(); ++size)
    {
        EXPECT_TRUE(IsRefused({request.begin(), request.begin() + static_cast<long>(size)}))
            << size;
    }
    qor::TByteArray longer = request;
    longer.push_back('x');
    EXPECT_TRUE(IsRefused(longer));
}

TEST(PolicyRequest, ForeignHeadersAreRefused)
{
    const qor::TByteArray request = Archive("<policy/>");
    const std::size_t header = Archive("").size() - sizeof(std::size_t);
    std::size_t refused = 0;
    for (std::size_t offset = 0; offset < header; ++offset)
    {
        qor::TByteArray changed = request;
        changed[offset] = static_cast<unsigned char>(changed[offset] ^ 0x80);
        refused += IsRefused(changed) ? 1 : 0;
    }
    // One byte says which minor release wrote the archive, and may vary a little.
    EXPECT_GE(refused, header - 2);
    EXPECT_TRUE(IsRefused(qor::TByteArray(4096, 0)));
}

// With little address space left, an allocation of the declared size could not succeed; a decoder
// that tried would throw instead of refusing.
TEST(PolicyRequest, DeclaredLengthsAllocateNothing)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers reserve address space of their own";
#endif
    const qor::TByteArray request = Archive("<policy/>");
    const std::size_t textLength =
        request.size() - std::string("<policy/>").size() - sizeof(size_t);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    const rlimit tight = {std::size_t(1) << 30, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    for (const std::size_t length : {std::size_t(10), std::size_t(1) << 31, std::size_t(1) << 62,
                                     std::numeric_limits<std::size_t>::max()})
    {
        for (const std::size_t offset : {std::size_t(0), textLength})
        {
            qor::TByteArray hostile = request;
            PutLength(hostile, offset, length);
            bool isRefused = false;
            EXPECT_NO_THROW(isRefused = IsRefused(hostile)) << offset << ", " << length;
            EXPECT_TRUE(isRefused) << offset << ", " << length;
        }
    }
    setrlimit(RLIMIT_AS, &before);
}

TEST(PolicyRequest, ResultIsOneIntegerInAnArchive)
{
    qor::TByteArray reply = {1, 2, 3};
    qord::EncodePolicyResult(-70000, reply);
    std::stringstream stream;
    qor::TCIpcSerializationUtil::ConvertData(reply, stream);
    boost::archive::binary_iarchive archive(stream);
    int result = 0;
    archive >> result;
    EXPECT_EQ(result, -70000);
    EXPECT_EQ(stream.peek(), std::stringstream::traits_type::eof());
}

} // namespace
