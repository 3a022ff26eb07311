// The messages that only qord and qorctl speak, beside the library's own.
#include "common/ServiceMessage.h"

#include <cstring>

#include <boost/archive/archive_exception.hpp>

#include <qor/PolicyMessage.h>

namespace tools
{
namespace
{

// An archive with one integer is what answers a policy, and one with one text is what carries it:
// the same bytes, whatever they mean.
bool ReadInteger(const qor::TByteArray& archive, int& value)
{
    try
    {
        value = qor::ReadPolicyReply(archive);
        return true;
    }
    catch (const boost::archive::archive_exception&)
    {
        return false;
    }
}

std::size_t SizeOfIntegerArchive()
{
    qor::TByteArray archive;
    qor::WritePolicyReply(0, archive);
    return archive.size();
}

} // namespace

void WriteGetPolicyRequest(std::int32_t number, qor::TByteArray& request)
{
    qor::WritePolicyReply(number, request);
}

bool ReadGetPolicyRequest(const qor::TByteArray& request, std::int32_t& number)
{
    return request.size() == SizeOfIntegerArchive() && ReadInteger(request, number);
}

void WriteGetPolicyReply(int result, const std::string& policy, qor::TByteArray& reply)
{
    qor::WritePolicyReply(result, reply);
    const std::size_t length = policy.size();
    const auto* pLength = reinterpret_cast<const unsigned char*>(&length);
    reply.reserve(reply.size() + sizeof length + length);
    reply.insert(reply.end(), pLength, pLength + sizeof length);
    reply.insert(reply.end(), policy.begin(), policy.end());
}

bool ReadGetPolicyReply(const qor::TByteArray& reply, int& result, std::string& policy)
{
    std::size_t length = 0;
    const std::size_t start = SizeOfIntegerArchive() + sizeof length;
    if (reply.size() < start)
    {
        return false;
    }
    const auto text = reply.begin() + static_cast<std::ptrdiff_t>(start);
    const auto textLength = text - static_cast<std::ptrdiff_t>(sizeof length);
    std::memcpy(&length, &*textLength, sizeof length);
    if (length != reply.size() - start ||
        !ReadInteger(qor::TByteArray(reply.begin(), textLength), result))
    {
        return false;
    }
    policy.assign(text, reply.end());
    return true;
}

void WriteStatusReply(const std::string& json, qor::TByteArray& reply)
{
    qor::WritePolicyRequest(json, reply);
}

bool ReadStatusReply(const qor::TByteArray& reply, std::string& json)
{
    std::string error;
    std::string_view text;
    if (qor::ReadPolicyRequest(reply, text, error) != qor::EPolicyRequest::GOOD)
    {
        return false;
    }
    json = text;
    return true;
}

} // namespace tools
