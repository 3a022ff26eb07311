// The process-wide control object and the application's way to it.
#include "QORControlProxy.h"

#include <cstddef>
#include <cstring>
#include <sstream>
#include <streambuf>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>

#include <qor/QORDbusClient.h>
#include <qor/QORDeactivator.h>
#include <qor/QORIpcSerializationUtil.h>
#include <qor/api.h>

#include "QORLog.h"
#include "QORProxySingleton.h"

namespace qor
{

namespace
{

constexpr int SET_POLICY = 4; // client to service; numbers are per direction
constexpr int NOT_DELIVERED = -1;

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
void RefuseOverlongSignature(const std::vector<unsigned char>& reply)
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

IControl::~IControl() = default;

boost::shared_ptr<IControl> TCControlProxy::Instance()
{
    return ProxyInstance<TCControlProxy>(*m_pInstance, m_rwlock, m_destroyed);
}

void TCControlProxy::Destroy()
{
    ProxyDestroy(*m_pInstance, m_rwlock, m_destroyed);
}

TCControlProxy::TCControlProxy() : m_dbusClient(TCDbusClientProvider::Get(false))
{
    if (!m_dbusClient)
    {
        QOR_ASSERT_FAILED();
    }
}

TCControlProxy::~TCControlProxy() = default;

int TCControlProxy::SetPolicy(const std::string& policy)
{
    TByteArray request;
    request.reserve(policy.size() + ARCHIVE_ROOM);
    {
        TCByteArrayBuffer buffer(request);
        boost::archive::binary_oarchive archive(buffer);
        archive << policy;
    }

    TByteArray reply;
    if (!m_dbusClient || !m_dbusClient->SendMessage(SET_POLICY, request, reply, false))
    {
        return NOT_DELIVERED;
    }

    RefuseOverlongSignature(reply);
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(reply, stream);
    boost::archive::binary_iarchive archive(stream);
    int result = NOT_DELIVERED;
    archive >> result;
    return result;
}

namespace api
{

boost::shared_ptr<IControl> GetControl()
{
    TCDeactivator::RegisterDBUS(&TCControlProxy::Destroy);
    return TCControlProxy::Instance();
}

} // namespace api

} // namespace qor
