// The common base of both endpoints: connection, exported object, message dispatch, wire format.
#include <qor/QORDbus.h>

#include <unistd.h>

#include <cstring>
#include <utility>

#include <boost/bind/bind.hpp>
#include <boost/make_shared.hpp>

#include <gio/gio.h>

#include "QORBusConnection.h"
#include "QORDbusContext.h"
#include "QORDbusLink.h"
#include "QORDbusSession.h"
#include "QORDbusTurns.h"
#include "QOREnvelope.h"
#include "QORFork.h"
#include "QORGlibCompat.h"
#include "QORGlibError.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbus"

namespace qor
{

IDbus::~IDbus() = default;

const char* const TCDbus::t_dbusHelloMethod = "Hello";
const char* const TCDbus::t_dbusSendMethod = "Send";
const char* const TCDbus::t_interfaceName = "com.norvane.qor.IControl";

const char* const TCDbus::m_interfaceXml = "<node>"
                                           "  <interface name='com.norvane.qor.IControl'>"
                                           "    <method name='Send'>"
                                           "      <arg type='ay' name='data' direction='in'/>"
                                           "      <arg type='ay' name='response' direction='out'/>"
                                           "    </method>"
                                           "\t <method name='Hello'>"
                                           "\t   <arg type='ay' name='events' direction='in'/>"
                                           "\t </method>"
                                           "  </interface>"
                                           "</node>";

const GDBusInterfaceVTable TCDbus::m_interfaceVtable = {
    &TCDbus::m_HandleMethodCall, nullptr, nullptr, {nullptr}};

TCDbus::TCDbus(bool testMode)
    : m_testMode(testMode),
      t_busName(testMode ? "com.norvane.qor.IControlTest" : "com.norvane.qor.IControl"),
      t_objectPath(testMode ? "/com/norvane/qor/CommunicationChannelTest"
                            : "/com/norvane/qor/CommunicationChannel"),
      t_isReady(false),
      t_isCurrentMessageAsync(false),
      m_registrationId(0),
      m_pTurns(std::make_unique<TCDbusTurns>()),
      m_pLink(NewDbusLink(this))
{
    if (IsForkedChild())
    {
        m_pLink->m_process = NO_PROCESS;
    }
}

TCDbus::~TCDbus()
{
    if (m_pLink != nullptr)
    {
        RELEASE_DBUS_LINK(m_pLink);
    }
}

bool TCDbus::IsReady()
{
    return t_IsInOwnProcess() && t_isReady;
}

std::string TCDbus::GetUniqueName()
{
    if (!t_IsInOwnProcess())
    {
        return {};
    }
    const TSharedLock lock(t_stateMutex);
    return t_uniqueName;
}

std::string TCDbus::GetCurrentSender()
{
    if (!t_IsInOwnProcess() || !t_IsInHandler())
    {
        return {};
    }
    const TSharedLock lock(t_stateMutex);
    return t_currentSender;
}

std::size_t TCDbus::MaxPayload()
{
    return MaxPayloadSize();
}

bool TCDbus::t_Fits(std::size_t payloadSize)
{
    return payloadSize <= MaxPayload();
}

// --- Start and stop ------------------------------------------------------------------------------

bool TCDbus::t_Start()
{
    return t_Connect() && t_Export(t_Session());
}

bool TCDbus::t_Connect()
{
    if (!t_IsInOwnProcess())
    {
        QOR_LOG_ERROR("Connecting to system bus error, errno %d", G_IO_ERROR_NOT_SUPPORTED);
        return false;
    }
    t_SetDbusCallback(t_dbusSendMethod,
                      boost::bind(&TCDbus::m_HandleMessage, this, boost::placeholders::_1,
                                  boost::placeholders::_2, boost::placeholders::_3));
    m_pNodeInfo.reset(g_dbus_node_info_new_for_xml(m_interfaceXml, nullptr));

    TCGlibError error;
    TGlibPtr<GMainContext> pContext;
    TGlibPtr<GDBusConnection> pConnection;
    if (HasFreeDescriptors(error.Out()))
    {
        pContext.reset(g_main_context_new());
        pConnection = BusConnection(pContext.get(), error.Out());
    }
    if (pConnection == nullptr)
    {
        QOR_LOG_ERROR("Connecting to system bus error, errno %d", error.Code());
        t_startError = error.Get()->message;
        return false;
    }
    t_pMainContext.reset(g_main_context_ref_thread_default());
    m_pNextTurn = std::make_unique<TCDbusTimer>(t_pMainContext.get(), &TCDbus::m_NextTurn,
                                                t_NewUserData(), RELEASE_DBUS_LINK);
    const auto session = boost::make_shared<TCDbusSession>(std::move(pConnection),
                                                           std::move(pContext), t_objectPath);
    t_SetSession(session);
    QOR_LOG_DEBUG("Working with unique name %s", session->UniqueName().c_str());
    return true;
}

TCDbus::TSessionPtr TCDbus::t_Session()
{
    const TSharedLock lock(t_stateMutex);
    return t_pSession;
}

void TCDbus::t_SetSession(TSessionPtr session) // the old one goes after the lock
{
    TGlibPtr<GDBusConnection> pConnection(
        session == nullptr ? nullptr
                           : static_cast<GDBusConnection*>(g_object_ref(session->Connection())));
    const TExclusiveLock lock(t_stateMutex);
    t_uniqueName = session == nullptr ? "" : session->UniqueName();
    t_pConnection.swap(pConnection);
    t_pSession.swap(session);
}

bool TCDbus::t_Export(const TSessionPtr& session)
{
    const TExclusiveLock lock(t_watchMutex);
    if (t_IsSevered())
    {
        return false;
    }
    TCGlibError error;
    void* pUserData = t_NewUserData();
    m_registrationId = g_dbus_connection_register_object(
        session->Connection(), t_objectPath, m_pNodeInfo->interfaces[0], &m_interfaceVtable,
        pUserData, RELEASE_DBUS_LINK, error.Out());
    if (m_registrationId == 0)
    {
        if (!FailedRegistrationReleases())
        {
            RELEASE_DBUS_LINK(pUserData);
        }
        QOR_LOG_ERROR("Registering object error, errno %d", error.Code());
        session->Admission().Stop(); // the path is another endpoint's
        return false;
    }
    m_pExportedOn = session;
    return true;
}

void TCDbus::t_Unexport()
{
    TSessionPtr session; // goes after the lock
    const TExclusiveLock lock(t_watchMutex);
    if (m_registrationId != 0)
    {
        g_dbus_connection_unregister_object(m_pExportedOn->Connection(), m_registrationId);
        m_registrationId = 0;
        m_pExportedOn->Admission().Stop();
        m_pExportedOn.swap(session);
    }
}

bool TCDbus::t_IsExportedOn(const TSessionPtr& session)
{
    const TSharedLock lock(t_watchMutex);
    return m_pExportedOn != nullptr && m_pExportedOn == session;
}

void TCDbus::t_Stop()
{
    t_Unexport();
    m_pNextTurn.reset();
    m_pNodeInfo.reset();
    t_SetSession(nullptr);
}

void TCDbus::t_SetDbusCallback(const char* method, const TMethodHandler& handler)
{
    m_methodHandlers[method] = handler;
}

void TCDbus::t_SeverHandlers()
{
    SeverDbusLink(m_pLink);
}

void TCDbus::t_StopHandlers()
{
    SeverDbusLink(m_pLink);
    WaitForDbusHandlers(m_pLink);
}

bool TCDbus::t_IsSevered() const
{
    return IsDbusLinkSevered(m_pLink);
}

bool TCDbus::t_IsInHandler() const
{
    return IsInDbusHandler(m_pLink);
}

bool TCDbus::t_IsInOwnProcess() const
{
    return m_pLink->m_process == getpid();
}

// Not analysed: the child has no other thread, and the locks are made anew.
void TCDbus::t_Abandon() QOR_NOT_ANALYSED
{
    if (m_pLink->m_process == NO_PROCESS)
    {
        return; // nothing is inherited
    }
    m_pLink = nullptr;
    MakeAnew(t_callbacksMutex);
    MakeAnew(t_callbacks);
    MakeAnew(t_stateMutex);
    MakeAnew(t_watchMutex);
    MakeAnew(t_pSession);
    MakeAnew(t_pConnection);
    MakeAnew(t_uniqueName);
    MakeAnew(t_currentSender);
    MakeAnew(t_pMainContext);
    MakeAnew(m_pNodeInfo);
    MakeAnew(m_pExportedOn);
    MakeAnew(m_pTurns);
    MakeAnew(m_pNextTurn);
}

void* TCDbus::t_NewUserData()
{
    return g_atomic_rc_box_acquire(m_pLink);
}

void TCDbus::t_ConvertBytes(GVariant* pValue, TByteArray& bytes) const
{
    UnwrapBytes(pValue, bytes);
}

void TCDbus::t_ConvertBytes(const TByteArray& bytes, GVariant*& pValue) const
{
    pValue = WrapBytes(bytes);
}

void TCDbus::t_ConvertBytes(int type, bool isAsync, const TByteArray& payload,
                            GVariant*& pValue) const
{
    pValue = WriteRequest(type, isAsync, payload);
}

void TCDbus::t_ConvertBytes(const TByteArray& output, bool result, GVariant*& pValue) const
{
    pValue = WriteReply(result, output);
}

void TCDbus::t_ConvertBytes(GVariant* pValue, bool& result, TByteArray& output) const
{
    if (!ReadReply(pValue, result, output))
    {
        QOR_ASSERT_FAILED();
    }
}

void TCDbus::t_ConvertBytes(GVariant* pValue, int& type, bool& isAsync, TByteArray& payload) const
{
    if (!ReadRequest(pValue, type, isAsync, payload))
    {
        QOR_ASSERT_FAILED();
    }
}

} // namespace qor
