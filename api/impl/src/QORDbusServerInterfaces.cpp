// Interfaces of the service's own on its object: calls, properties, signals.
#include <qor/QORDbusServer.h>

#include <stdexcept>

#include <gio/gio.h>

#include "QORDbusLink.h"
#include "QORDbusServerInterfaces.h"
#include "QORDbusSession.h"
#include "QORGlibCompat.h"
#include "QORGlibError.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusServer"

namespace qor
{

namespace
{

constexpr char PROPERTIES[] = "org.freedesktop.DBus.Properties";

const char* FirstText(GVariant* pArguments)
{
    const char* text = nullptr;
    g_variant_get_child(pArguments, 0, "&s", &text);
    return text;
}

TGlibPtr<GVariant> Read(const TSServiceInterface& own, const char* property)
{
    GVariant* pValue = own.m_onRead ? own.m_onRead(property) : nullptr;
    return TGlibPtr<GVariant>(pValue == nullptr ? nullptr : g_variant_take_ref(pValue));
}

// Answering takes the invocation over.
void AnswerGet(const TSServiceInterface& own, GDBusMethodInvocation* pInvocation)
{
    const char* property = nullptr;
    g_variant_get_child(g_dbus_method_invocation_get_parameters(pInvocation), 1, "&s", &property);
    const auto pValue = Read(own, property);
    if (pValue == nullptr)
    {
        g_dbus_method_invocation_return_error(pInvocation, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED,
                                              "The property %s is not for this caller", property);
        return;
    }
    g_dbus_method_invocation_return_value(pInvocation, g_variant_new("(v)", pValue.get()));
}

void AnswerGetAll(const TSServiceInterface& own, const GDBusInterfaceInfo& info,
                  GDBusMethodInvocation* pInvocation)
{
    GVariantBuilder values;
    g_variant_builder_init(&values, G_VARIANT_TYPE_VARDICT);
    for (GDBusPropertyInfo** ppProperty = info.properties;
         ppProperty != nullptr && *ppProperty != nullptr; ++ppProperty)
    {
        if (const auto pValue = Read(own, (*ppProperty)->name))
        {
            g_variant_builder_add(&values, "{sv}", (*ppProperty)->name, pValue.get());
        }
    }
    g_dbus_method_invocation_return_value(pInvocation, g_variant_new("(a{sv})", &values));
}

} // namespace

void TCDbusServerInterfaces::Add(const TSServiceInterface& own)
{
    TCGlibError error;
    TGlibPtr<GDBusNodeInfo> pNode(g_dbus_node_info_new_for_xml(own.m_xml.c_str(), error.Out()));
    if (pNode == nullptr || pNode->interfaces[0] == nullptr || pNode->interfaces[1] != nullptr)
    {
        throw std::invalid_argument(pNode == nullptr ? error.Get()->message
                                                     : "a node with one interface is needed");
    }
    if (!own.m_onCall)
    {
        throw std::invalid_argument("there is no function for calls");
    }
    m_entries.push_back({own, std::move(pNode), 0});
}

bool TCDbusServerInterfaces::Export(GDBusConnection* pConnection, const char* path,
                                    const GDBusInterfaceVTable& vtable,
                                    const std::function<void*()>& newUserData)
{
    for (TSEntry& entry : m_entries)
    {
        TCGlibError error;
        void* pUserData = newUserData();
        entry.m_registrationId =
            g_dbus_connection_register_object(pConnection, path, entry.m_pNode->interfaces[0],
                                              &vtable, pUserData, RELEASE_DBUS_LINK, error.Out());
        if (entry.m_registrationId == 0)
        {
            if (!FailedRegistrationReleases())
            {
                RELEASE_DBUS_LINK(pUserData);
            }
            QOR_LOG_ERROR("Registering interface error, errno %d", error.Code());
            return false;
        }
    }
    return true;
}

void TCDbusServerInterfaces::Unexport(GDBusConnection* pConnection)
{
    for (TSEntry& entry : m_entries)
    {
        if (entry.m_registrationId != 0)
        {
            g_dbus_connection_unregister_object(pConnection, entry.m_registrationId);
            entry.m_registrationId = 0;
        }
    }
}

// GDBus has checked that interface, method and property exist, and the types of the arguments.
void TCDbusServerInterfaces::Answer(GDBusMethodInvocation* pInvocation) const
{
    const std::string called = g_dbus_method_invocation_get_interface_name(pInvocation);
    const bool isRead = called == PROPERTIES;
    const std::string meant =
        isRead ? FirstText(g_dbus_method_invocation_get_parameters(pInvocation)) : called;
    for (const TSEntry& entry : m_entries)
    {
        const GDBusInterfaceInfo& info = *entry.m_pNode->interfaces[0];
        if (meant != info.name)
        {
            continue;
        }
        if (!isRead)
        {
            entry.m_interface.m_onCall(pInvocation);
        }
        else if (g_dbus_method_invocation_get_property_info(pInvocation) != nullptr)
        {
            AnswerGet(entry.m_interface, pInvocation);
        }
        else
        {
            AnswerGetAll(entry.m_interface, info, pInvocation);
        }
        return;
    }
    g_dbus_method_invocation_return_error_literal(
        pInvocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_INTERFACE, "There is no such interface");
}

const GDBusInterfaceVTable TCDbusServer::m_ownInterfaceVtable = {
    &TCDbusServer::m_HandleInterfaceCall, nullptr, nullptr, {nullptr}};

void TCDbusServer::m_HandleInterfaceCall(GDBusConnection* /*pConnection*/, const char* /*sender*/,
                                         const char* /*objectPath*/, const char* /*interfaceName*/,
                                         const char* /*methodName*/, GVariant* /*pParameters*/,
                                         GDBusMethodInvocation* pInvocation, void* pUserData)
{
    const boost::shared_ptr<GDBusMethodInvocation> pOwned(pInvocation, TSGlibRelease());
    const TCDbusEntry entry(pUserData);
    entry.Run<TCDbusServer>([pOwned](TCDbusServer& server)
                            { server.m_HandleInterfaceCall(pOwned.get()); },
                            g_dbus_method_invocation_get_message(pInvocation));
}

void TCDbusServer::m_HandleInterfaceCall(GDBusMethodInvocation* pInvocation)
{
    {
        const TExclusiveLock lock(t_stateMutex);
        t_isCurrentMessageAsync = false;
        t_currentSender = g_dbus_method_invocation_get_sender(pInvocation);
    }
    g_object_ref(pInvocation); // which the answer takes over
    m_pInterfaces->Answer(pInvocation);
    const TExclusiveLock lock(t_stateMutex);
    t_currentSender.clear();
}

bool TCDbusServer::EmitSignal(const std::string& interfaceName, const std::string& signalName,
                              GVariant* pArguments)
{
    const TGlibPtr<GVariant> pOwned(pArguments == nullptr ? nullptr
                                                          : g_variant_ref_sink(pArguments));
    const TSessionPtr session = t_IsInOwnProcess() ? t_Session() : nullptr;
    const std::size_t size = pOwned == nullptr ? 0 : g_variant_get_size(pOwned.get());
    if (session == nullptr || !t_Fits(size))
    {
        return false;
    }
    TCGlibError error;
    if (g_dbus_connection_emit_signal(session->Connection(), nullptr, t_objectPath,
                                      interfaceName.c_str(), signalName.c_str(), pOwned.get(),
                                      error.Out()) == FALSE)
    {
        QOR_LOG_ERROR("Sending signal error, errno %d", error.Code());
        return false;
    }
    return true;
}

} // namespace qor
