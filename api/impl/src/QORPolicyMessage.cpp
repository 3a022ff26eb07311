// The message that hands the service a policy, and its answer.
#include <qor/PolicyMessage.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <streambuf>
#include <utility>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/basic_archive.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>

#include <qor/QORIpcSerializationUtil.h>

#include "QORArchiveHeader.h"
#include "QOREnvelope.h"

namespace qor
{

namespace
{

using boost::archive::archive_exception;

// More than an archive writes besides a string's bytes: its own header and the string's length.
constexpr std::size_t ARCHIVE_ROOM = 64;

// Lets an archive write into a byte array itself. A policy may be large, and a string stream would
// hold it twice more on the way.
class TCByteArrayWriter : public std::streambuf
{
public:
    explicit TCByteArrayWriter(TByteArray& bytes) : m_bytes(bytes) {}

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

// As the archive class reads one of its own word size.
int ReadIntegerOfOtherWordSize(const TByteArray& archive)
{
    TSArchiveHeader header;
    const std::string error = ReadArchiveHeader(archive, header);
    if (!error.empty())
    {
        throw archive_exception(archive_exception::incompatible_native_format, error.c_str());
    }
    const auto newest = boost::archive::BOOST_ARCHIVE_VERSION();
    if (header.m_version > newest)
    {
        throw archive_exception(archive_exception::unsupported_version);
    }
    std::int32_t value = 0;
    if (archive.size() < header.m_size + sizeof value)
    {
        throw archive_exception(archive_exception::input_stream_error);
    }
    std::memcpy(&value, archive.data() + header.m_size, sizeof value);
    return value;
}

} // namespace

void WritePolicyRequest(const std::string& policy, TByteArray& request)
{
    request.clear();
    request.reserve(policy.size() + ARCHIVE_ROOM);
    TCByteArrayWriter writer(request);
    boost::archive::binary_oarchive archive(writer);
    archive << policy;
}

EPolicyRequest ReadPolicyRequest(const TByteArray& request, std::string_view& policy,
                                 std::string& error, std::size_t maxSize)
{
    TSArchiveHeader header;
    std::string whyNot = ReadArchiveHeader(request, header);
    if (!whyNot.empty())
    {
        error = std::move(whyNot);
        return EPolicyRequest::NOT_A_POLICY;
    }
    const std::size_t textAt = header.m_size + header.m_wordSize;
    if (request.size() < textAt)
    {
        error = "it ends within the length of its text";
        return EPolicyRequest::NOT_A_POLICY;
    }
    const std::uint64_t length = ReadArchivedLength(request, header.m_size, header.m_wordSize);
    const std::size_t carried = request.size() - textAt;
    if (length != carried)
    {
        error = "it declares " + std::to_string(length) + " bytes of text and carries " +
                std::to_string(carried);
        return EPolicyRequest::NOT_A_POLICY;
    }
    if (carried > maxSize)
    {
        error = "its " + std::to_string(carried) + " bytes are more than the " +
                std::to_string(maxSize) + " that are accepted";
        return EPolicyRequest::TOO_LARGE;
    }
    policy = std::string_view(reinterpret_cast<const char*>(request.data() + textAt), carried);
    return EPolicyRequest::GOOD;
}

void WritePolicyReply(int result, TByteArray& reply)
{
    reply.clear();
    TCByteArrayWriter writer(reply);
    boost::archive::binary_oarchive archive(writer);
    archive << result;
}

void WritePolicyReply(int result, const TByteArray& request, TByteArray& reply)
{
    TSArchiveHeader header;
    if (!ReadArchiveHeader(request, header).empty())
    {
        WritePolicyReply(result, reply);
        return;
    }
    // The two arrays may be one.
    TByteArray written(request.begin(),
                       request.begin() + static_cast<std::ptrdiff_t>(header.m_size));
    const auto value = static_cast<std::int32_t>(result);
    const auto* pValue = reinterpret_cast<const unsigned char*>(&value);
    written.insert(written.end(), pValue, pValue + sizeof value);
    reply = std::move(written);
}

int ReadPolicyReply(const TByteArray& reply)
{
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(reply, stream);
    // The archive class allocates any length that the signature declares, so check that before the
    // class sees the bytes.
    const std::size_t wordSize = ArchiveWordSize(reply);
    if (wordSize == 0)
    {
        throw archive_exception(archive_exception::invalid_signature);
    }
    if (wordSize != sizeof(std::size_t))
    {
        return ReadIntegerOfOtherWordSize(reply);
    }
    boost::archive::binary_iarchive archive(stream);
    int result = 0;
    archive >> result;
    return result;
}

std::size_t MaxPolicySize()
{
    TByteArray empty;
    WritePolicyRequest("", empty);
    return MaxPayloadSize() - empty.size();
}

} // namespace qor
