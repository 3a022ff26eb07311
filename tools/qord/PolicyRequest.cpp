// Reads the request that carries a new policy, and writes the answer.
#include "qord/PolicyRequest.h"

#include <cstddef>
#include <cstring>
#include <ios>
#include <sstream>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/basic_archive.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>

#include <qor/QORIpcSerializationUtil.h>

namespace qord
{
namespace
{

// An archive opens with its signature as a string. The archive class would allocate whatever length
// that string declares, so this is looked at before the class sees the bytes.
bool HasArchiveSignature(const qor::TByteArray& request)
{
    const std::string signature = boost::archive::BOOST_ARCHIVE_SIGNATURE();
    std::size_t length = 0;
    if (request.size() < sizeof length + signature.size())
    {
        return false;
    }
    std::memcpy(&length, request.data(), sizeof length);
    return length == signature.size() &&
           std::memcmp(request.data() + sizeof length, signature.data(), length) == 0;
}

// Where the text begins: what an archive puts before it has always the same size.
std::size_t PolicyOffset()
{
    static const std::size_t offset = []
    {
        std::stringstream stream;
        boost::archive::binary_oarchive archive(stream);
        archive << std::string();
        return stream.str().size();
    }();
    return offset;
}

std::size_t ReadPosition(std::stringstream& stream)
{
    return static_cast<std::size_t>(
        static_cast<std::streamoff>(stream.rdbuf()->pubseekoff(0, std::ios::cur, std::ios::in)));
}

bool ReadPolicy(const qor::TByteArray& request, std::string& policy, std::string& error)
{
    std::stringstream stream;
    qor::TCIpcSerializationUtil::ConvertData(request, stream);
    boost::archive::binary_iarchive archive(stream);
    std::size_t length = 0;
    archive.load_binary(&length, sizeof length);
    const std::size_t remaining = request.size() - ReadPosition(stream);
    if (length != remaining)
    {
        error = "it declares " + std::to_string(length) + " bytes of text and carries " +
                std::to_string(remaining);
        return false;
    }
    policy.assign(request.end() - static_cast<std::ptrdiff_t>(length), request.end());
    return true;
}

} // namespace

std::size_t PolicySize(const qor::TByteArray& request)
{
    const std::size_t overhead = PolicyOffset();
    return request.size() > overhead ? request.size() - overhead : 0;
}

bool DecodePolicyRequest(const qor::TByteArray& request, std::string& policy, std::string& error)
{
    if (!HasArchiveSignature(request))
    {
        error = "it does not begin like an archive";
        return false;
    }
    try
    {
        return ReadPolicy(request, policy, error);
    }
    catch (const boost::archive::archive_exception& exception)
    {
        error = exception.what();
        return false;
    }
}

void EncodePolicyResult(int result, qor::TByteArray& reply)
{
    std::stringstream stream;
    boost::archive::binary_oarchive archive(stream);
    archive << result;
    qor::TCIpcSerializationUtil::ConvertData(stream, reply);
}

} // namespace qord
