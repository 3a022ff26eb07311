// The message that hands the service a policy, and its answer.
#include <qor/PolicyMessage.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <streambuf>
#include <type_traits>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/basic_archive.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>

#include <qor/QORDbus.h>
#include <qor/QORIpcSerializationUtil.h>

namespace qor
{

namespace
{

using boost::archive::archive_exception;

// More than what an archive writes beside a string's bytes: its own header and the string's length.
constexpr std::size_t ARCHIVE_ROOM = 64;

// The two below let an archive work on a byte array itself. A policy may be large, and a string
// stream would hold it twice more on the way.
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

class TCByteArrayReader : public std::streambuf
{
public:
    explicit TCByteArrayReader(const TByteArray& bytes)
    {
        // It is not written to: a buffer without a put area takes nothing.
        char* pBytes = reinterpret_cast<char*>(const_cast<unsigned char*>(bytes.data()));
        setg(pBytes, pBytes, pBytes + bytes.size());
    }

    std::size_t Remaining() const
    {
        return static_cast<std::size_t>(egptr() - gptr());
    }
};

template <class TLength>
bool OpensWithSignature(const TByteArray& bytes)
{
    const std::string signature = boost::archive::BOOST_ARCHIVE_SIGNATURE();
    TLength length = 0;
    if (bytes.size() < sizeof length + signature.size())
    {
        return false;
    }
    std::memcpy(&length, bytes.data(), sizeof length);
    return length == signature.size() &&
           std::memcmp(bytes.data() + sizeof length, signature.data(), signature.size()) == 0;
}

// An archive begins with its signature as a string, and the archive class allocates whatever length
// that string declares. So this is looked at before the class sees the bytes.
void CheckSignature(const TByteArray& bytes)
{
    using TForeignLength =
        std::conditional_t<sizeof(std::size_t) == 8, std::uint32_t, std::uint64_t>;
    if (OpensWithSignature<std::size_t>(bytes))
    {
        return;
    }
    if (OpensWithSignature<TForeignLength>(bytes))
    {
        throw archive_exception(archive_exception::incompatible_native_format,
                                "written by a process of another word size");
    }
    throw archive_exception(archive_exception::invalid_signature);
}

// Positions the reader behind the archive's header and the text's length.
std::size_t ReadTextLength(const TByteArray& request, TCByteArrayReader& reader)
{
    CheckSignature(request);
    boost::archive::binary_iarchive archive(reader);
    std::size_t length = 0;
    archive.load_binary(&length, sizeof length);
    return length;
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
    TCByteArrayReader reader(request);
    std::size_t length = 0;
    try
    {
        length = ReadTextLength(request, reader);
    }
    catch (const archive_exception& exception)
    {
        error = exception.what();
        return EPolicyRequest::NOT_A_POLICY;
    }
    if (length != reader.Remaining())
    {
        error = "it declares " + std::to_string(length) + " bytes of text and carries " +
                std::to_string(reader.Remaining());
        return EPolicyRequest::NOT_A_POLICY;
    }
    if (length > maxSize)
    {
        error = "its " + std::to_string(length) + " bytes are more than the " +
                std::to_string(maxSize) + " that are accepted";
        return EPolicyRequest::TOO_LARGE;
    }
    policy = std::string_view(
        reinterpret_cast<const char*>(request.data() + request.size() - length), length);
    return EPolicyRequest::GOOD;
}

void WritePolicyReply(int result, TByteArray& reply)
{
    reply.clear();
    TCByteArrayWriter writer(reply);
    boost::archive::binary_oarchive archive(writer);
    archive << result;
}

int ReadPolicyReply(const TByteArray& reply)
{
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(reply, stream);
    CheckSignature(reply);
    boost::archive::binary_iarchive archive(stream);
    int result = 0;
    archive >> result;
    return result;
}

std::size_t MaxPolicySize()
{
    TByteArray empty;
    WritePolicyRequest("", empty);
    return TCDbus::MaxPayload() - empty.size();
}

} // namespace qor
