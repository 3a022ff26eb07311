// The policy message as a client writes and reads it.
#include "PolicyMessage.h"

#include <sstream>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>

namespace qortest
{

Bytes PolicyRequest(const std::string& policy)
{
    std::ostringstream stream;
    boost::archive::binary_oarchive archive(stream);
    archive << policy;
    const std::string text = stream.str();
    return Request(4, false, Bytes(text.begin(), text.end()));
}

int PolicyResult(const CallResult& reply)
{
    if (!reply.ok || reply.bytes.empty() || reply.bytes[0] == 0)
    {
        return -1;
    }
    std::istringstream stream(std::string(reply.bytes.begin() + 1, reply.bytes.end()));
    boost::archive::binary_iarchive archive(stream);
    int result = -1;
    archive >> result;
    return result;
}

} // namespace qortest
