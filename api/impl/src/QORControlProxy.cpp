// The process-wide control object and the application's way to it.
#include "QORControlProxy.h"

#include <sstream>

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
    std::vector<unsigned char> request;
    {
        std::stringstream stream;
        boost::archive::binary_oarchive archive(stream);
        archive << policy;
        TCIpcSerializationUtil::ConvertData(stream, request);
    }

    std::vector<unsigned char> reply;
    if (!m_dbusClient || !m_dbusClient->SendMessage(SET_POLICY, request, reply, false))
    {
        return NOT_DELIVERED;
    }

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
