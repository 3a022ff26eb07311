// The service's endpoint: the bus name, the registry of clients, event delivery.
#include <qor/QORDbusServer.h>

#include <utility>

#include <boost/bind/bind.hpp>

#include <gio/gio.h>

#include <qor/SendResult.h>

#include "QORBusConnection.h"
#include "QORDbusContext.h"
#include "QORDbusLink.h"
#include "QORDbusPeers.h"
#include "QORDbusServerInterfaces.h"
#include "QORDbusServerLoad.h"
#include "QORDbusServerStop.h"
#include "QORDbusSession.h"
#include "QOREventDelivery.h"
#include "QORFork.h"
#include "QORGlibError.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusServer"

namespace qor
{

namespace
{

constexpr gint64 RELEASE_LIMIT_US = 2 * G_TIME_SPAN_SECOND;

// False if no thread can be created. The function takes a number where a thread's function takes a
// pointer; both are passed in the same way.
bool UnownOnAThread(unsigned int id)
{
    const auto function = reinterpret_cast<void (*)()>(&g_bus_unown_name);
    GThread* pThread = g_thread_try_new("qor-unown", reinterpret_cast<GThreadFunc>(function),
                                        GUINT_TO_POINTER(id), nullptr);
    if (pThread != nullptr)
    {
        g_thread_unref(pThread);
    }
    return pThread != nullptr;
}

} // namespace

IDbusServer::~IDbusServer() = default;
IDbusService::~IDbusService() = default;

TCDbusServer::TCDbusServer(bool testMode) : TCDbusServer(testMode, {}) {}

TCDbusServer::TCDbusServer(bool testMode, const std::vector<TSServiceInterface>& interfaces)
    : TCDbus(testMode),
      m_ownNameId(0),
      m_numberOfTypes(0),
      m_pInterfaces(t_IsInOwnProcess() ? std::make_unique<TCDbusServerInterfaces>() : nullptr),
      m_state(EServiceState::STARTING),
      m_toldState(EServiceState::STARTING),
      m_nameAnswer(0)
{
    if (m_pInterfaces != nullptr)
    {
        for (const TSServiceInterface& own : interfaces)
        {
            m_pInterfaces->Add(own);
        }
    }
    try
    {
        t_Start();
    }
    catch (const boost::thread_interrupted&)
    {
        QOR_LOG_ERROR("t_Start interrupted");
    }
    catch (...)
    {
        // The destructor will not run, so end here what has been put on the bus.
        t_Stop();
        throw;
    }
}

TCDbusServer::~TCDbusServer()
{
    if (!t_IsInOwnProcess())
    {
        MakeAnew(m_clients);
        MakeAnew(m_thread);
        MakeAnew(m_pContext);
        MakeAnew(m_pMainLoop);
        MakeAnew(m_pInterfaces);
        MakeAnew(m_pPeers);
        MakeAnew(m_pNews);
        MakeAnew(m_pDelivery);
        MakeAnew(m_pStop);
        MakeAnew(m_pLoad);
        MakeAnew(m_pHangUp);
        MakeAnew(m_stateCallback);
        MakeAnew(m_stateCallbackMutex);
        MakeAnew(m_pStateNews);
        MakeAnew(m_pNameNews);
        MakeAnew(m_resumeCallback);
        MakeAnew(m_resumeCallbackMutex);
        t_Abandon();
        return;
    }
    // A pending interruption of this thread must not break off the join.
    const boost::this_thread::disable_interruption notNow;
    t_Stop();
}

// Runs a member in the main context, whenever it is set.
template <void (TCDbusServer::*MEMBER)()>
std::unique_ptr<TCDbusTimer> TCDbusServer::m_NewTimer()
{
    return std::make_unique<TCDbusTimer>(t_pMainContext.get(),
                                         &TCDbusEntry::RunMember<TCDbusServer, MEMBER>,
                                         t_NewUserData(), RELEASE_DBUS_LINK);
}

// A call may come as soon as the object is exported, so everything that it needs is made before.
bool TCDbusServer::t_Start()
{
    t_SetDbusCallback(t_dbusHelloMethod,
                      boost::bind(&TCDbusServer::m_HandleHelloMessage, this,
                                  boost::placeholders::_1, boost::placeholders::_2,
                                  boost::placeholders::_3));
    if (!t_Connect())
    {
        const TExclusiveLock lock(t_stateMutex);
        m_state = EServiceState::BUS_CLOSED;
        return false;
    }
    const TSessionPtr session = t_Session();
    m_pContext.reset(g_main_context_new());
    m_pMainLoop.reset(g_main_loop_new(m_pContext.get(), FALSE));
    m_pPeers = std::make_unique<TCDbusPeers>(session->Calls());
    m_pNews = m_NewTimer<&TCDbusServer::m_HandleNews>();
    m_pStateNews = m_NewTimer<&TCDbusServer::m_TellState>();
    m_pNameNews = m_NewTimer<&TCDbusServer::m_LearnWhoHasTheName>();
    m_pDelivery = std::make_unique<TCEventDelivery>(m_pContext.get(), *session, *m_pPeers,
                                                    [this] { m_pNews->SetIn(0); });
    m_pStop = std::make_unique<TSStop>(m_NewTimer<&TCDbusServer::m_GoOnStopping>());
    m_pLoad = std::make_unique<TSLoad>();
    m_pLoad->m_pNews = m_NewTimer<&TCDbusServer::m_LookAtLoad>();
    m_pLoad->m_pSweep = m_NewTimer<&TCDbusServer::m_SweepClients>();
    session->Admission().Serve(
        [this, &admission = session->Admission()](const std::string& name)
        { m_pPeers->Ask(name, [&admission](const TSPeer& peer) { admission.SetPeer(peer); }); },
        [this] { m_pLoad->m_pNews->SetIn(0); });
    if (!t_Export(session) ||
        !m_pInterfaces->Export(session->Connection(), t_objectPath, m_ownInterfaceVtable,
                               [this] { return t_NewUserData(); }))
    {
        return false;
    }
    m_pHangUp = NewHangUpSource(session->Connection()); // held as long as the object is exported
    g_source_set_callback(m_pHangUp.get(), G_SOURCE_FUNC(&TCDbusServer::m_HungUp), t_NewUserData(),
                          RELEASE_DBUS_LINK);
    g_source_attach(m_pHangUp.get(), t_pMainContext.get());
    const unsigned int id =
        g_bus_own_name_on_connection(session->Connection(), t_busName, G_BUS_NAME_OWNER_FLAGS_NONE,
                                     &TCDbusServer::m_NameAcquired, &TCDbusServer::m_NameLost,
                                     t_NewUserData(), RELEASE_DBUS_LINK);
    {
        const TExclusiveLock lock(t_stateMutex);
        m_ownNameId = id;
    }
    try
    {
        m_thread = boost::thread(boost::bind(&TCDbusServer::m_StartMainLoop, this));
    }
    catch (const boost::thread_interrupted&)
    {
        QOR_LOG_ERROR("m_StartMainLoop interrupted");
    }
    QOR_LOG_DEBUG("Server started. Own name id %d", static_cast<int>(id));
    return true;
}

void TCDbusServer::t_Stop()
{
    t_StopHandlers();
    if (m_pMainLoop != nullptr)
    {
        // Posted, not called: a loop does not remember that it was quit before it ran.
        g_main_context_invoke(m_pContext.get(), &TCDbusServer::m_QuitMainLoop, m_pMainLoop.get());
    }
    m_thread.join();
    if (m_pHangUp != nullptr)
    {
        g_source_destroy(m_pHangUp.get());
        m_pHangUp.reset();
    }
    {
        const TExclusiveLock lock(t_stateMutex);
        while (!m_clients.empty())
        {
            m_ForgetClient(m_clients.begin());
        }
    }
    m_GiveUpName();
    if (const TSessionPtr session = t_Session())
    {
        m_pInterfaces->Unexport(session->Connection());
    }
    TCDbus::t_Stop(); // until then answers of the bus may come, which set timers
    for (auto* pTimer : {&m_pNews, &m_pStateNews, &m_pNameNews})
    {
        pTimer->reset();
    }
    m_pStop.reset();
    m_pLoad.reset();
    m_pDelivery.reset();
    m_pPeers.reset();
    m_pMainLoop.reset();
    m_pContext.reset();
}

// The bus is waited for here. GLib would wait for 25 s, so a bus that does not answer is left to
// a thread that runs nothing of this library's, which may be unloaded meanwhile.
void TCDbusServer::m_GiveUpName()
{
    unsigned int id = 0;
    bool isClosed = false;
    {
        const TExclusiveLock lock(t_stateMutex);
        std::swap(id, m_ownNameId);
        isClosed = m_state == EServiceState::BUS_CLOSED;
    }
    if (id == 0)
    {
        return;
    }
    TCGlibError error;
    const TSessionPtr session = t_Session();
    if (!HasFreeDescriptors(error.Out())) // GLib would end the process
    {
        session->Calls().IsAnsweredByBus("ReleaseName", g_variant_new("(s)", t_busName),
                                         RELEASE_LIMIT_US);
        return;
    }
    const bool isMute = m_pStop->m_isOver && !m_pStop->m_isWritten; // an ordered end has seen that
    if (isClosed ||
        (!isMute && session->Calls().IsAnsweredByBus("GetId", nullptr, RELEASE_LIMIT_US)) ||
        session->IsClosed() || !UnownOnAThread(id))
    {
        g_bus_unown_name(id);
    }
}

void TCDbusServer::m_StartMainLoop()
{
    g_main_context_push_thread_default(m_pContext.get());
    g_main_loop_run(m_pMainLoop.get());
}

int TCDbusServer::m_QuitMainLoop(void* pLoop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(pLoop));
    return G_SOURCE_REMOVE;
}

void TCDbusServer::m_NameAcquired(GDBusConnection* pConnection, const char* name, void* pUserData)
{
    const TCDbusEntry entry(pUserData);
    QOR_LOG_DEBUG("Name %s has been acquired, user_data %p", name,
                  static_cast<void*>(entry.Endpoint()));
    entry.Run<TCDbusServer>([pConnection, name = std::string(name)](TCDbusServer& server)
                            { server.m_NameAcquired(pConnection, name.c_str()); });
}

void TCDbusServer::m_NameAcquired(GDBusConnection* /*pConnection*/, const char* /*name*/)
{
    t_isReady = true;
    m_SetState(EServiceState::ACQUIRED);
}

void TCDbusServer::m_NameLost(GDBusConnection* /*pConnection*/, const char* name, void* pUserData)
{
    const TCDbusEntry entry(pUserData);
    QOR_LOG_DEBUG("Name %s has been lost, user_data %p", name,
                  static_cast<void*>(entry.Endpoint()));
    if (entry.Endpoint() != nullptr)
    {
        QOR_ASSERT_FAILED();
    }
    entry.Run<TCDbusServer>([](TCDbusServer& server) { server.m_AskWhoHasTheName(); });
}

// --- Callbacks ---------------------------------------------------------------------------------

bool TCDbusServer::SetCallback(int type, const TMessageCallback& callback)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const TExclusiveLock lock(t_callbacksMutex);
    const bool inserted = t_callbacks.try_emplace(type, callback).second;
    QOR_LOG_DEBUG("Type %d, result %d", type, inserted);
    return inserted;
}

bool TCDbusServer::UnSetCallback(int type)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    std::map<int, TMessageCallback>::node_type removed; // goes after the lock: it is the caller's
    const TExclusiveLock lock(t_callbacksMutex);
    removed = t_callbacks.extract(type);
    return !removed.empty();
}

} // namespace qor
