// The payloads of the message that carries a policy to the service, and of its reply.
#include "QORPolicyMessage.h"

#include <cstddef>
#include <cstring>
#include <sstream>
#include <streambuf>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>

#include <qor/QORIpcSerializationUtil.h>

namespace qor
{

namespace
{

// What an archive writes beside a string's bytes: its own header and the string's length.
constexpr std::size_t ARCHIVE_ROOM = 64;

// Lets an archive write straight into a byte array. A policy may be large, and a string stream
// would hold it twice more on the way.
class TCByteArrayBuffer : public std::streambuf
{
public:
    explicit TCByteArrayBuffer(TByteArray& bytes) : m_bytes(bytes) {}

protected:
    std::streamsize xsputn(const char* pText, std::streamsize count) override
    {
        const auto* pBytes = reinterpret_cast<const unsigned char*>(pText);
        m_bytes.insert(m_bytes.end(), pBytes, pBytes + count);
        return count;
    }
    int_type overflow(int_type character) override
    {
        if (character != traits_type::eof())
        {
            m_bytes.push_back(static_cast<unsigned char>(character));
        }
        return traits_type::not_eof(character);
    }

private:
    TByteArray& m_bytes;
};

// An archive begins with the length of its signature, and opening it allocates that much before it
// looks at the signature. A length that the reply cannot hold is no archive's, so it ends the same
// way as any other wrong signature, but without the allocation.
void RefuseOverlongSignature(const TByteArray& reply)
{
    std::size_t length = 0;
    if (reply.size() < sizeof length)
    {
        return;
    }
    memcpy(&length, reply.data(), sizeof length);
    if (length > reply.size() - sizeof length)
    {
        throw boost::archive::archive_exception(
            boost::archive::archive_exception::invalid_signature);
    }
}

} // namespace

void WritePolicyRequest(const std::string& policy, TByteArray& request)
{
    request.clear();
    request.reserve(policy.size() + ARCHIVE_ROOM);
    TCByteArrayBuffer buffer(request);
    boost::archive::binary_oarchive archive(buffer);
    archive << policy;
}

int ReadPolicyReply(const TByteArray& reply)
{
    RefuseOverlongSignature(reply);
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(reply, stream);
    boost::archive::binary_iarchive archive(stream);
    int result = 0;
    archive >> result;
    return result;
}

} // namespace qor
