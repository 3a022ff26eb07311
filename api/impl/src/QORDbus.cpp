// The common base of both endpoints: connection, exported object, message dispatch, wire format.
#include <qor/QORDbus.h>

#include <unistd.h>

#include <cstring>
#include <utility>

#include <boost/bind/bind.hpp>
#include <boost/thread/lock_types.hpp>

#include <gio/gio.h>

#include <qor/IDbusClient.h>
#include <qor/IDbusServer.h>

#include "QORDbusLink.h"
#include "QORFork.h"
#include "QORGlibCompat.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbus"

namespace qor
{

namespace
{

// Integers are laid down in host order, which both ends share and which is little-endian.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the wire format is little-endian");
static_assert(sizeof(int) == 4, "message types take 4 bytes");

constexpr std::size_t TYPE_SIZE = 4;
constexpr std::size_t REQUEST_HEADER_SIZE = TYPE_SIZE + 1;
constexpr std::size_t REPLY_HEADER_SIZE = 1;

// Room for a message's header fields: names and paths of at most 255 bytes each, and alignment.
constexpr std::size_t MESSAGE_HEADER_ROOM = 4096;
static_assert(QOR_MAX_MESSAGE_SIZE > 2 * MESSAGE_HEADER_ROOM, "no room for a payload");

// Builds "(ay)" out of an envelope's header and its body with one copy. The block belongs to GLib,
// which may free it after this library has been unloaded.
GVariant* WrapBytes(const unsigned char* header, std::size_t headerSize, const TByteArray& body)
{
    const std::size_t size = headerSize + body.size();
    auto* block = static_cast<unsigned char*>(g_malloc(size));
    if (headerSize != 0)
    {
        memcpy(block, header, headerSize);
    }
    if (!body.empty())
    {
        memcpy(block + headerSize, body.data(), body.size());
    }
    GVariant* pArray =
        g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, block, size, TRUE, g_free, block);
    return g_variant_new_tuple(&pArray, 1);
}

// The bytes inside an "(ay)" value, in place. A value of another type, which only a foreign peer
// sends, has none.
class TCByteView
{
public:
    explicit TCByteView(GVariant* pValue) : m_data(nullptr), m_size(0)
    {
        if (pValue == nullptr || !g_variant_is_of_type(pValue, G_VARIANT_TYPE("(ay)")))
        {
            return;
        }
        m_pArray.reset(g_variant_get_child_value(pValue, 0));
        m_data = static_cast<const unsigned char*>(
            g_variant_get_fixed_array(m_pArray.get(), &m_size, sizeof(unsigned char)));
    }

    std::size_t Size() const
    {
        return m_size;
    }
    const unsigned char* Begin() const
    {
        return m_data;
    }
    const unsigned char* End() const
    {
        return m_data + m_size;
    }

private:
    TGlibPtr<GVariant> m_pArray;
    const unsigned char* m_data;
    std::size_t m_size;
};

} // namespace

void TSGlibRelease::operator()(GDBusConnection* p) const noexcept
{
    g_object_unref(p);
}

void TSGlibRelease::operator()(GDBusMethodInvocation* p) const noexcept
{
    g_object_unref(p);
}

void TSGlibRelease::operator()(GDBusNodeInfo* p) const noexcept
{
    g_dbus_node_info_unref(p);
}

void TSGlibRelease::operator()(GDBusProxy* p) const noexcept
{
    g_object_unref(p);
}

void TSGlibRelease::operator()(GError* p) const noexcept
{
    g_error_free(p);
}

void TSGlibRelease::operator()(GMainContext* p) const noexcept
{
    g_main_context_unref(p);
}

void TSGlibRelease::operator()(GMainLoop* p) const noexcept
{
    g_main_loop_unref(p);
}

void TSGlibRelease::operator()(GVariant* p) const noexcept
{
    g_variant_unref(p);
}

IDbus::~IDbus() = default;
IDbusClient::~IDbusClient() = default;
IDbusServer::~IDbusServer() = default;

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
    const boost::shared_lock<boost::shared_mutex> lock(t_stateMutex);
    return t_isReady;
}

std::string TCDbus::GetUniqueName()
{
    const boost::shared_lock<boost::shared_mutex> lock(t_stateMutex);
    return t_uniqueName;
}

std::size_t TCDbus::MaxPayload()
{
    return QOR_MAX_MESSAGE_SIZE - MESSAGE_HEADER_ROOM - REQUEST_HEADER_SIZE;
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

    GError* pRawError = nullptr;
    t_pConnection.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &pRawError));
    if (t_pConnection == nullptr)
    {
        const TGlibPtr<GError> pError(pRawError);
        QOR_LOG_ERROR("Connecting to system bus error, errno %d", pError->code);
        return false;
    }
    // The shared connection would otherwise end the process when the bus goes away.
    g_dbus_connection_set_exit_on_close(t_pConnection.get(), FALSE);

    t_uniqueName = g_dbus_connection_get_unique_name(t_pConnection.get());
    QOR_LOG_DEBUG("Working with unique name %s", t_uniqueName.c_str());

    void* pUserData = t_NewUserData();
    m_registrationId = g_dbus_connection_register_object(
        t_pConnection.get(), t_objectPath, m_pNodeInfo->interfaces[0], &m_interfaceVtable,
        pUserData, RELEASE_DBUS_LINK, &pRawError);
    if (m_registrationId == 0)
    {
        if (!FailedRegistrationReleases())
        {
            RELEASE_DBUS_LINK(pUserData);
        }
        const TGlibPtr<GError> pError(pRawError);
        QOR_LOG_ERROR("Registering object error, errno %d", pError->code);
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

void TCDbus::t_LetHandlersRun()
{
    OpenDbusLink(m_pLink);
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
    Abandon(t_callbacksMutex);
    Abandon(t_callbacks);
    Abandon(t_stateMutex);
    Abandon(t_watchMutex);
    Abandon(t_currentSender);
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
    const auto found = m_methodHandlers.find(methodName);
    if (found == m_methodHandlers.end())
    {
        QOR_LOG_DEBUG("No message handler for %s", methodName);
        g_dbus_method_invocation_return_value(pInvocation.release(), nullptr);
        return;
    }
    QOR_LOG_DEBUG("->Invoke message handler %s", methodName);
    found->second(sender, pParameters, pInvocation.release());
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
        const boost::unique_lock<boost::shared_mutex> lock(t_stateMutex);
        t_isCurrentMessageAsync = isAsync;
        t_currentSender = sender;
    }

    bool result = false;
    {
        const boost::shared_lock<boost::shared_mutex> lock(t_callbacksMutex);
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

    const boost::unique_lock<boost::shared_mutex> lock(t_stateMutex);
    t_currentSender.clear();
}

void TCDbus::t_ConvertBytes(GVariant* pValue, TByteArray& bytes) const
{
    const TCByteView view(pValue);
    bytes.insert(bytes.end(), view.Begin(), view.End());
}

void TCDbus::t_ConvertBytes(const TByteArray& bytes, GVariant*& pValue) const
{
    pValue = WrapBytes(nullptr, 0, bytes);
}

void TCDbus::t_ConvertBytes(int type, bool isAsync, const TByteArray& payload,
                            GVariant*& pValue) const
{
    unsigned char header[REQUEST_HEADER_SIZE];
    memcpy(header, &type, TYPE_SIZE);
    header[TYPE_SIZE] = isAsync ? 1 : 0;
    pValue = WrapBytes(header, sizeof header, payload);
}

void TCDbus::t_ConvertBytes(const TByteArray& output, bool result, GVariant*& pValue) const
{
    const unsigned char header[REPLY_HEADER_SIZE] = {static_cast<unsigned char>(result ? 1 : 0)};
    pValue = WrapBytes(header, sizeof header, output);
}

void TCDbus::t_ConvertBytes(GVariant* pValue, bool& result, TByteArray& output) const
{
    const TCByteView view(pValue);
    if (view.Size() < REPLY_HEADER_SIZE)
    {
        QOR_ASSERT_FAILED();
        return;
    }
    result = *view.Begin() != 0;
    output.assign(view.Begin() + REPLY_HEADER_SIZE, view.End());
}

void TCDbus::t_ConvertBytes(GVariant* pValue, int& type, bool& isAsync, TByteArray& payload) const
{
    const TCByteView view(pValue);
    if (view.Size() < REQUEST_HEADER_SIZE)
    {
        QOR_ASSERT_FAILED();
        return;
    }
    memcpy(&type, view.Begin(), TYPE_SIZE);
    isAsync = view.Begin()[TYPE_SIZE] != 0;
    payload.assign(view.Begin() + REQUEST_HEADER_SIZE, view.End());
}

} // namespace qor
