// The application's endpoint, and the provider that shares one per process.
#include <qor/QORDbusClient.h>

#include <optional>
#include <string>
#include <utility>

#include <gio/gio.h>

#include "QORDbusContext.h"
#include "QORDbusLink.h"
#include "QORDbusPending.h"
#include "QORDbusRegistration.h"
#include "QORDbusSession.h"
#include "QORDbusStates.h"
#include "QORFork.h"
#include "QORGlibError.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusClient"

namespace qor
{

namespace
{

constexpr gint64 FLUSH_LIMIT_US = 500 * G_TIME_SPAN_MILLISECOND;

} // namespace

IDbusClient::~IDbusClient() = default;

TCDbusClient::TCDbusClient(bool testMode)
    : TCDbus(testMode),
      m_watcherId(0),
      m_nextAttempt(0),
      m_pPending(t_IsInOwnProcess() ? std::make_shared<TCDbusPending>() : nullptr),
      m_pStates(t_IsInOwnProcess() ? std::make_unique<TCDbusStates>() : nullptr)
{
    t_Start();
}

TCDbusClient::~TCDbusClient()
{
    if (t_IsInOwnProcess())
    {
        t_Stop();
        return;
    }
    MakeAnew(m_pProxy);
    MakeAnew(m_pHangUp);
    MakeAnew(m_pPending);
    MakeAnew(m_pStates);
    MakeAnew(m_pSend);
    MakeAnew(m_pRecovery);
    MakeAnew(m_pNews);
    MakeAnew(m_pRegistration);
    t_Abandon();
}

// --- Start and stop ------------------------------------------------------------------------------

bool TCDbusClient::t_Start()
{
    if (!TCDbus::t_Start() || !m_CreateProxy())
    {
        return false;
    }
    m_pSend.reset(
        g_dbus_message_new_method_call(t_busName, t_objectPath, t_interfaceName, t_dbusSendMethod));
    m_pRecovery = std::make_unique<TCDbusTimer>(
        t_pMainContext.get(), &TCDbusEntry::RunMember<TCDbusClient, &TCDbusClient::m_Recover>,
        t_NewUserData(), RELEASE_DBUS_LINK);
    m_pNews = std::make_unique<TCDbusTimer>(
        t_pMainContext.get(),
        &TCDbusEntry::RunMember<TCDbusClient, &TCDbusClient::m_TellNewObservers>, t_NewUserData(),
        RELEASE_DBUS_LINK);
    m_pRegistration = std::make_shared<TCDbusRegistration>(std::make_unique<TCDbusTimer>(
        t_pMainContext.get(),
        &TCDbusEntry::RunMember<TCDbusClient, &TCDbusClient::m_CheckRegistration>, t_NewUserData(),
        RELEASE_DBUS_LINK));
    m_Watch(t_Session());
    return true;
}

bool TCDbusClient::m_IsStarted() const
{
    return m_pRegistration != nullptr;
}

// It connects no signals, so that the bus is not asked, nor waited for.
bool TCDbusClient::m_CreateProxy()
{
    TCGlibError error;
    TGlibPtr<GDBusProxy> pProxy(g_dbus_proxy_new_sync(
        t_Session()->Connection(),
        static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES |
                                     G_DBUS_PROXY_FLAGS_DO_NOT_CONNECT_SIGNALS |
                                     G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START_AT_CONSTRUCTION),
        nullptr, t_busName, t_objectPath, t_interfaceName, nullptr, error.Out()));
    if (pProxy == nullptr)
    {
        QOR_LOG_ERROR("Registering proxy error, errno %d", error.Code());
        return false;
    }
    const TExclusiveLock lock(t_stateMutex);
    m_pProxy = std::move(pProxy);
    return true;
}

// Makes room for a successor, without waiting for a callback: the provider calls it with its mutex
// held. The destructor does the rest.
void TCDbusClient::m_LeaveBus()
{
    t_SeverHandlers();
    if (m_IsStarted())
    {
        m_pRecovery->Stop();
        m_pNews->Stop();
        m_pRegistration->Stop();
    }
    m_Unwatch();
    t_Unexport();
}

void TCDbusClient::t_Stop()
{
    m_LeaveBus();
    t_StopHandlers();
    m_pPending->End();
    if (m_hasSentAsync && !t_Session()->IsClosed())
    {
        // GDBus drops messages that it has not written when the connection closes.
        t_Session()->Calls().IsAnsweredByBus("GetId", nullptr, FLUSH_LIMIT_US);
    }
    {
        const TExclusiveLock lock(t_stateMutex);
        m_pProxy.reset();
    }
    TCDbus::t_Stop();
}

// --- The service comes and goes ------------------------------------------------------------------

void TCDbusClient::m_NameAppeared(GDBusConnection* pConnection, const char* name, const char* owner,
                                  void* pUserData)
{
    const TCDbusEntry entry(pUserData);
    QOR_LOG_DEBUG("Name appeared - name %s", name);
    entry.Run<TCDbusClient>(
        [pConnection, name = std::string(name), owner = std::string(owner)](TCDbusClient& client)
        { client.m_NameAppeared(pConnection, name.c_str(), owner.c_str()); });
}

void TCDbusClient::m_NameAppeared(GDBusConnection* pConnection, const char* /*name*/,
                                  const char* /*owner*/)
{
    if (pConnection != t_Session()->Connection())
    {
        return; // of a bus that has been lost meanwhile
    }
    m_pRegistration->Restart();
    m_SendHello(false);
    t_isReady = true;
    if (m_pRegistration->HasNews()) // the thread that changed the types may not have seen that
    {
        m_SendHello(false);
    }
    m_pStates->SetService(true);
}

void TCDbusClient::m_NameVanished(GDBusConnection* pConnection, const char* name, void* pUserData)
{
    const TCDbusEntry entry(pUserData);
    QOR_LOG_DEBUG("Name vanished - name %s", name);
    entry.Run<TCDbusClient>([pConnection, name = std::string(name)](TCDbusClient& client)
                            { client.m_NameVanished(pConnection, name.c_str()); });
}

void TCDbusClient::m_NameVanished(GDBusConnection* /*pConnection*/, const char* /*name*/)
{
    t_isReady = false;
    m_pStates->SetService(false);
}

// A Hello that was meant for a service that has just left must not start it again.
bool TCDbusClient::m_SendHello(bool mayStart)
{
    const TSessionPtr session = t_Session();
    QOR_LOG_DEBUG("Send hello %s", session == nullptr ? "" : session->UniqueName().c_str());
    if (m_IsStarted())
    {
        const TGlibPtr<GDBusMessage> pHello(g_dbus_message_new_method_call(
            t_busName, t_objectPath, t_interfaceName, t_dbusHelloMethod));
        if (!mayStart)
        {
            g_dbus_message_set_flags(pHello.get(), G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
        }
        m_pRegistration->Announce(session->Calls(), pHello.get());
    }
    return true;
}

// The types are confirmed, or it is time to say them again. Without the service neither counts: it
// is told everything anew when it appears.
void TCDbusClient::m_CheckRegistration()
{
    if (!t_isReady)
    {
        return;
    }
    if (m_pRegistration->TakeConfirmation())
    {
        m_pStates->TellRegistered();
        return;
    }
    std::optional<int> newReason;
    if (!m_pRegistration->IsUnconfirmed(newReason))
    {
        return;
    }
    if (newReason)
    {
        QOR_LOG_ERROR("Sending hello error, errno %d", *newReason);
        m_pStates->TellUnregistered();
    }
    m_SendHello(false);
}

// --- Observers -----------------------------------------------------------------------------------

unsigned int TCDbusClient::AddStateCallback(const TStateCallback& callback)
{
    if (!t_IsInOwnProcess())
    {
        return 0;
    }
    const unsigned int id = m_pStates->Add(callback);
    if (m_IsStarted())
    {
        m_pNews->SetIn(0);
    }
    return id;
}

bool TCDbusClient::RemoveStateCallback(unsigned int id)
{
    return t_IsInOwnProcess() && m_pStates->Remove(id);
}

void TCDbusClient::m_TellNewObservers()
{
    m_pStates->TellNew(m_pRegistration->IsConfirmationTaken());
}

// --- Callbacks --------------------------------------------------------------------------

bool TCDbusClient::SetCallback(int type, const TMessageCallback& callback)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const TExclusiveLock lock(t_callbacksMutex);
    const bool inserted = t_callbacks.try_emplace(type, callback).second;
    QOR_LOG_DEBUG("Type %d, result %d", type, inserted);
    if (inserted)
    {
        m_TypesChanged();
    }
    return inserted;
}

bool TCDbusClient::UnSetCallback(int type)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    std::map<int, TMessageCallback>::node_type removed; // goes after the lock: it is the caller's
    const TExclusiveLock lock(t_callbacksMutex);
    removed = t_callbacks.extract(type);
    if (!removed.empty())
    {
        m_TypesChanged();
    }
    return !removed.empty();
}

void TCDbusClient::m_TypesChanged()
{
    if (!m_IsStarted())
    {
        return;
    }
    m_pRegistration->SetTypes(t_callbacks);
    if (t_isReady)
    {
        m_SendHello(false);
    }
}

// --- The process's endpoint ----------------------------------------------------------------------

boost::shared_ptr<IDbusClient> TCDbusClientProvider::Get(bool testMode)
{
    const TLock lock(*m_pMutex);
    boost::shared_ptr<IDbusClient> client = m_pDbusClient->lock();
    if (client == nullptr)
    {
        if (m_pLatest != nullptr && m_pLatest->t_IsInOwnProcess())
        {
            m_pLatest->m_LeaveBus(); // its last holder has let go, and has not come here yet
        }
        m_pLatest = nullptr;
        auto* pClient = new TCDbusClient(testMode);
        client.reset(pClient, &TCDbusClientProvider::m_Release);
        *m_pDbusClient = client;
        m_pLatest = pClient;
    }
    return client;
}

// A successor may be asked for at once, so the bus is left before anything is waited for.
void TCDbusClientProvider::m_Release(TCDbusClient* pClient)
{
    {
        const TLock lock(*m_pMutex);
        m_pLatest = m_pLatest == pClient ? nullptr : m_pLatest;
        if (pClient->t_IsInOwnProcess())
        {
            pClient->m_LeaveBus();
        }
    }
    delete pClient;
}

} // namespace qor
