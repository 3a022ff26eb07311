// The payloads of the message that carries a policy to the service, and of its reply.
#include "QORPolicyMessage.h"

#include <cstddef>
#include <cstring>
#include <sstream>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>

#include <qor/QORIpcSerializationUtil.h>

namespace qor
{

namespace
{

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
    std::stringstream stream;
    boost::archive::binary_oarchive archive(stream);
    archive << policy;
    TCIpcSerializationUtil::ConvertData(stream, request);
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
