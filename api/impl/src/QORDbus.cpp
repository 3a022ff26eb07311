// The common base of both endpoints: connection, exported object, message dispatch, wire format.
#include <qor/QORDbus.h>

#include <unistd.h>

#include <cstring>
#include <utility>

#include <boost/bind/bind.hpp>

#include <gio/gio.h>

#include "QORDbusLink.h"
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
      m_pLink(NewDbusLink(this))
{
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
    const TSharedLock lock(t_stateMutex);
    return t_isReady;
}

std::string TCDbus::GetUniqueName()
{
    const TSharedLock lock(t_stateMutex);
    return t_uniqueName;
}

std::size_t TCDbus::MaxPayload()
{
    return MaxPayloadSize();
}

bool TCDbus::t_Fits(std::size_t payloadSize)
{
    return payloadSize <= MaxPayload();
}

bool TCDbus::t_Start()
{
    t_SetDbusCallback(t_dbusSendMethod,
                      boost::bind(&TCDbus::m_HandleMessage, this, boost::placeholders::_1,
                                  boost::placeholders::_2, boost::placeholders::_3));
    m_pNodeInfo.reset(g_dbus_node_info_new_for_xml(m_interfaceXml, nullptr));

    TCGlibError error;
    t_pConnection.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.Out()));
    if (t_pConnection == nullptr)
    {
        QOR_LOG_ERROR("Connecting to system bus error, errno %d", error.Code());
        return false;
    }
    // The shared connection would otherwise end the process when the bus goes away.
    g_dbus_connection_set_exit_on_close(t_pConnection.get(), FALSE);

    t_uniqueName = g_dbus_connection_get_unique_name(t_pConnection.get());
    QOR_LOG_DEBUG("Working with unique name %s", t_uniqueName.c_str());

    void* pUserData = t_NewUserData();
    m_registrationId = g_dbus_connection_register_object(
        t_pConnection.get(), t_objectPath, m_pNodeInfo->interfaces[0], &m_interfaceVtable,
        pUserData, RELEASE_DBUS_LINK, error.Out());
    if (m_registrationId == 0)
    {
        if (!FailedRegistrationReleases())
        {
            RELEASE_DBUS_LINK(pUserData);
        }
        QOR_LOG_ERROR("Registering object error, errno %d", error.Code());
        return false;
    }
    return true;
}

void TCDbus::t_Stop()
{
    if (m_registrationId != 0)
    {
        g_dbus_connection_unregister_object(t_pConnection.get(), m_registrationId);
    }
    m_pNodeInfo.reset();
    t_pConnection.reset();
}

void TCDbus::t_SetDbusCallback(const char* method, const TMethodHandler& handler)
{
    m_methodHandlers[method] = handler;
}

void TCDbus::t_StopHandlers()
{
    SeverDbusLink(m_pLink);
}

bool TCDbus::t_IsInOwnProcess() const
{
    return m_pLink->m_process == getpid();
}

void TCDbus::t_Abandon()
{
    static_cast<void>(t_pConnection.release());
    static_cast<void>(m_pNodeInfo.release());
    m_pLink = nullptr;
    MakeAnew(t_callbacksMutex);
    MakeAnew(t_callbacks);
    MakeAnew(t_stateMutex);
    MakeAnew(t_watchMutex);
    MakeAnew(t_currentSender);
}

void* TCDbus::t_NewUserData()
{
    return g_atomic_rc_box_acquire(m_pLink);
}

void TCDbus::m_HandleMethodCall(GDBusConnection* pConnection, const char* sender,
                                const char* objectPath, const char* /*interfaceName*/,
                                const char* methodName, GVariant* pParameters,
                                GDBusMethodInvocation* pInvocation, void* pUserData)
{
    TGlibPtr<GDBusMethodInvocation> pOwnedInvocation(pInvocation);
    const TCDbusLinkUse use(pUserData);
    auto* pDbus = use.Endpoint<TCDbus>();
    if (pDbus == nullptr || pConnection == nullptr)
    {
        QOR_LOG_ERROR("Connection %p, user_data %p", static_cast<void*>(pConnection),
                      static_cast<void*>(pDbus));
        return;
    }
    pDbus->m_HandleMethodCall(sender, objectPath, methodName, pParameters,
                              std::move(pOwnedInvocation));
}

void TCDbus::m_HandleMethodCall(const char* sender, const char* objectPath, const char* methodName,
                                GVariant* pParameters, TGlibPtr<GDBusMethodInvocation> pInvocation)
{
    if (strcmp(objectPath, t_objectPath) != 0)
    {
        return;
    }
    const TMethodHandler handler = m_FindHandler(methodName);
    if (!handler)
    {
        QOR_LOG_DEBUG("No message handler for %s", methodName);
        g_dbus_method_invocation_return_value(pInvocation.release(), nullptr);
        return;
    }
    QOR_LOG_DEBUG("->Invoke message handler %s", methodName);
    handler(sender, pParameters, pInvocation.release());
}

// A start on another thread holds the lock until the endpoint is complete.
TCDbus::TMethodHandler TCDbus::m_FindHandler(const char* methodName)
{
    const TSharedLock lock(t_stateMutex);
    const auto found = m_methodHandlers.find(methodName);
    return found == m_methodHandlers.end() ? TMethodHandler() : found->second;
}

void TCDbus::m_HandleMessage(const char* sender, GVariant* pParameters,
                             GDBusMethodInvocation* pInvocation)
{
    int type = 0;
    bool isAsync = false;
    TByteArray payload;
    TByteArray output;
    t_ConvertBytes(pParameters, type, isAsync, payload);
    {
        const TExclusiveLock lock(t_stateMutex);
        t_isCurrentMessageAsync = isAsync;
        t_currentSender = sender;
    }

    bool result = false;
    {
        const TSharedLock lock(t_callbacksMutex);
        const auto found = t_callbacks.find(type);
        if (found != t_callbacks.end())
        {
            result = found->second(payload, output);
        }
        else
        {
            QOR_LOG_DEBUG("Callback for type %d is not registered", type);
        }
    }

    if (t_Fits(output.size()))
    {
        GVariant* pReply = nullptr;
        t_ConvertBytes(output, result, pReply);
        g_dbus_method_invocation_return_value(pInvocation, pReply);
    }
    else
    {
        // Sending it would make the bus close our connection.
        g_dbus_method_invocation_return_error_literal(pInvocation, G_DBUS_ERROR,
                                                      G_DBUS_ERROR_LIMITS_EXCEEDED,
                                                      "The reply is too large for the bus");
    }

    const TExclusiveLock lock(t_stateMutex);
    t_currentSender.clear();
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
