// The common base of both endpoints: connection, exported object, message dispatch, wire format.
#include <qor/QORDbus.h>

#include <unistd.h>

#include <cstring>
#include <utility>

#include <boost/bind/bind.hpp>
#include <boost/make_shared.hpp>

#include <gio/gio.h>

#include "QORBusConnection.h"
#include "QORDbusFilter.h"
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
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const TSharedLock lock(t_stateMutex);
    return t_isReady;
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

// Without a lock: only this thread changes the sender while it is inside a handler.
std::string TCDbus::GetCurrentSender()
{
    return t_IsInOwnProcess() && t_IsInHandler() ? t_currentSender : std::string();
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
    t_SetDbusCallback(t_dbusSendMethod,
                      boost::bind(&TCDbus::m_HandleMessage, this, boost::placeholders::_1,
                                  boost::placeholders::_2, boost::placeholders::_3));
    m_pNodeInfo.reset(g_dbus_node_info_new_for_xml(m_interfaceXml, nullptr));

    TCGlibError error;
    TGlibPtr<GDBusConnection> pConnection = SharedBusConnection(error.Out());
    if (pConnection == nullptr)
    {
        QOR_LOG_ERROR("Connecting to system bus error, errno %d", error.Code());
        return false;
    }
    t_pMainContext.reset(g_main_context_ref_thread_default());
    t_Adopt(boost::make_shared<TCDbusFilter>(
        std::move(pConnection), TGlibPtr<GMainContext>(g_main_context_new()), t_objectPath));
    QOR_LOG_DEBUG("Working with unique name %s", t_uniqueName.c_str());
    return t_Export();
}

void TCDbus::t_Adopt(const boost::shared_ptr<TCDbusFilter>& filter)
{
    t_pFilter = filter;
    t_pConnection.reset(static_cast<GDBusConnection*>(g_object_ref(filter->Connection())));
    t_uniqueName = g_dbus_connection_get_unique_name(t_pConnection.get());
}

bool TCDbus::t_Export()
{
    const TExclusiveLock lock(t_watchMutex);
    if (t_IsSevered())
    {
        return false;
    }
    TCGlibError error;
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
        t_pFilter->StopAdmission(); // the path is another endpoint's
        return false;
    }
    m_pExportedOn = t_pFilter;
    return true;
}

void TCDbus::t_Withdraw()
{
    boost::shared_ptr<TCDbusFilter> filter; // goes after the lock
    const TExclusiveLock lock(t_watchMutex);
    if (m_registrationId != 0)
    {
        g_dbus_connection_unregister_object(m_pExportedOn->Connection(), m_registrationId);
        m_registrationId = 0;
        m_pExportedOn->StopAdmission();
        m_pExportedOn.swap(filter);
    }
}

void TCDbus::t_Stop()
{
    t_Withdraw();
    m_pNodeInfo.reset();
    t_pFilter.reset();
    t_pConnection.reset();
}

bool TCDbus::t_IsExported()
{
    const TSharedLock lock(t_watchMutex);
    return m_pExportedOn != nullptr && m_pExportedOn == t_pFilter;
}

bool TCDbus::t_IsLost() const
{
    return t_pFilter != nullptr && t_pFilter->IsClosed();
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

void TCDbus::t_Abandon()
{
    static_cast<void>(t_pConnection.release());
    static_cast<void>(t_pMainContext.release());
    static_cast<void>(m_pNodeInfo.release());
    m_pLink = nullptr;
    MakeAnew(t_pFilter);
    MakeAnew(m_pExportedOn);
    MakeAnew(m_postponed);
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

// --- Dispatch ------------------------------------------------------------------------------------

void TCDbus::m_HandleMethodCall(GDBusConnection* pConnection, const char* /*sender*/,
                                const char* /*objectPath*/, const char* /*interfaceName*/,
                                const char* /*methodName*/, GVariant* /*pParameters*/,
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
    if (use.IsNested())
    {
        const boost::shared_ptr<GDBusMethodInvocation> pPostponed(pOwnedInvocation.release(),
                                                                  TSGlibRelease());
        pDbus->m_postponed.emplace_back(
            [pDbus, pPostponed]
            {
                pDbus->m_HandleMethodCall(TGlibPtr<GDBusMethodInvocation>(
                    static_cast<GDBusMethodInvocation*>(g_object_ref(pPostponed.get()))));
            });
        return;
    }
    pDbus->m_HandleMethodCall(std::move(pOwnedInvocation));
    pDbus->m_HandlePostponed();
}

void TCDbus::t_Handle(const TCDbusLinkUse& use, const boost::function<void()>& work)
{
    if (use.IsNested())
    {
        m_postponed.push_back(work);
        return;
    }
    work();
    m_HandlePostponed();
}

// What came while a callback iterated the main context.
void TCDbus::m_HandlePostponed()
{
    while (!m_postponed.empty() && !t_IsSevered())
    {
        const boost::function<void()> work = std::move(m_postponed.front());
        m_postponed.pop_front();
        work();
    }
    m_postponed.clear();
}

void TCDbus::m_HandleMethodCall(TGlibPtr<GDBusMethodInvocation> pInvocation)
{
    GDBusMethodInvocation* p = pInvocation.get();
    if (std::strcmp(g_dbus_method_invocation_get_object_path(p), t_objectPath) != 0)
    {
        return;
    }
    const char* methodName = g_dbus_method_invocation_get_method_name(p);
    const TMethodHandler handler = m_FindHandler(methodName);
    if (!handler)
    {
        QOR_LOG_DEBUG("No message handler for %s", methodName);
        g_dbus_method_invocation_return_value(pInvocation.release(), nullptr);
        return;
    }
    QOR_LOG_DEBUG("->Invoke message handler %s", methodName);
    handler(g_dbus_method_invocation_get_sender(p), g_dbus_method_invocation_get_parameters(p),
            pInvocation.release());
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
