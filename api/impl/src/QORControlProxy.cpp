// The process-wide control object and the application's way to it.
#include "QORControlProxy.h"

#include <qor/PolicyMessage.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDeactivator.h>
#include <qor/api.h>

#include "QORLog.h"
#include "QORProxySingleton.h"

namespace qor
{

namespace
{

constexpr int NOT_DELIVERED = -1;

} // namespace

IControl::~IControl() = default;

// Not analysed: the two templates take the lock that they are given.
boost::shared_ptr<IControl> TCControlProxy::Instance() QOR_NOT_ANALYSED
{
    return ProxyInstance<TCControlProxy>(*m_pInstance, m_rwlock, m_destroyed);
}

void TCControlProxy::Destroy() QOR_NOT_ANALYSED
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
    WritePolicyRequest(policy, request);
    std::vector<unsigned char> reply;
    if (!m_dbusClient || !m_dbusClient->SendMessage(SET_POLICY, request, reply, false))
    {
        return NOT_DELIVERED;
    }

    return ReadPolicyReply(reply);
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
