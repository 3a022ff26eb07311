// Measures what callers and clients cost a service, and limits it.
#include "QORDbusServerLoad.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <gio/gio.h>

#include "QORBusConnection.h"
#include "QORDbusSession.h"
#include "QOREventAccount.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusServer"

namespace qor
{

namespace
{

// A bus has a limited number of match rules for each connection, and does not say when they are
// used up. Each client takes one. From this number of clients on, the server asks the bus which of
// them are still there.
constexpr std::size_t MANY_CLIENTS = 128;
constexpr unsigned int SWEEP_INTERVAL_MS = 30000;

// So many types of a client are told, since it chooses how many there are.
constexpr std::size_t MAX_TOLD_TYPES = 8;

constexpr const char* ACCESS_DENIED = "org.freedesktop.DBus.Error.AccessDenied";

// GDBus counts up from 1. A client that guesses the number could answer a question without having
// read it.
std::uint32_t UnforeseenSerial()
{
    constexpr std::uint32_t upperHalf = 0x80000000;
    return g_random_int() | upperHalf;
}

bool IsFromBus(GDBusMessage* pAnswer)
{
    const char* sender = g_dbus_message_get_sender(pAnswer);
    return sender != nullptr && std::strcmp(sender, BUS_NAME) == 0;
}

std::set<std::string> ReadNames(GDBusMessage* pAnswer)
{
    std::set<std::string> names;
    GVariant* pBody = g_dbus_message_get_body(pAnswer);
    if (pBody != nullptr && g_variant_is_of_type(pBody, G_VARIANT_TYPE("(as)")) != FALSE)
    {
        const TGlibPtr<GVariant> pNames(g_variant_get_child_value(pBody, 0));
        GVariantIter iterator;
        g_variant_iter_init(&iterator, pNames.get());
        const char* name = nullptr;
        while (g_variant_iter_next(&iterator, "&s", &name) != FALSE)
        {
            names.insert(name);
        }
    }
    return names;
}

} // namespace

// In the main context, when admission has news, or the bus has told which names exist.
void TCDbusServer::m_LookAtLoad()
{
    t_TryWaitingCalls();
    TCDbusAdmission& admission = t_Session()->Admission();
    for (const std::string& name : admission.TakePings())
    {
        m_AskWhetherItReads(name);
    }
    if (admission.TakeSweep())
    {
        m_AskWhoIsThere();
    }
    std::set<std::string> present;
    gint64 time = 0;
    {
        const TCPosixLock lock(m_pLoad->m_mutex);
        present.swap(m_pLoad->m_names);
        time = m_pLoad->m_namesTime;
    }
    if (!present.empty())
    {
        m_ForgetAbsentClients(present, time);
    }
}

// Messages arrive in order: an answer says that everything before has been read.
void TCDbusServer::m_AskWhetherItReads(const std::string& name)
{
    const TSessionPtr session = t_Session();
    const TGlibPtr<GDBusMessage> pCall(
        g_dbus_message_new_method_call(name.c_str(), "/", "org.freedesktop.DBus.Peer", "Ping"));
    g_dbus_message_set_flags(pCall.get(), G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    g_dbus_message_set_serial(pCall.get(), UnforeseenSerial());
    TCDbusAdmission& admission = session->Admission();
    const auto onAnswer = [this, &admission, name](GDBusMessage* pAnswer)
    {
        const char* error = g_dbus_message_get_error_name(pAnswer);
        const bool isForbidden = error != nullptr && std::strcmp(error, ACCESS_DENIED) == 0;
        if (IsFromBus(pAnswer) && isForbidden && !m_pLoad->m_isForbiddenTold.exchange(true))
        {
            QOR_LOG_ERROR("The bus does not let the service ask whether %s reads its answers",
                          name.c_str());
        }
        admission.Pinged(name, IsFromBus(pAnswer) && !isForbidden);
    };
    if (session->Calls().Call(pCall.get(), onAnswer, nullptr) == 0)
    {
        admission.Pinged(name, true); // the connection is closed
    }
}

void TCDbusServer::m_AskWhoIsThere()
{
    const TSessionPtr session = t_Session();
    const TGlibPtr<GDBusMessage> pCall(
        g_dbus_message_new_method_call(BUS_NAME, BUS_PATH, BUS_NAME, "ListNames"));
    session->Calls().Call(
        pCall.get(),
        [this, &admission = session->Admission(),
         time = g_get_monotonic_time()](GDBusMessage* pAnswer)
        {
            std::set<std::string> names = ReadNames(pAnswer);
            if (names.empty())
            {
                return;
            }
            admission.Keep(names, time);
            {
                const TCPosixLock lock(m_pLoad->m_mutex);
                m_pLoad->m_names.swap(names);
                m_pLoad->m_namesTime = time;
            }
            m_pLoad->m_pNews->SetIn(0);
        },
        nullptr);
}

void TCDbusServer::m_ForgetAbsentClients(const std::set<std::string>& present, gint64 time)
{
    std::vector<std::string> absent;
    {
        const TSharedLock lock(t_stateMutex);
        for (const auto& [name, client] : m_clients)
        {
            if (client.m_since < time && present.count(name) == 0)
            {
                absent.push_back(name);
            }
        }
    }
    m_ForgetClients(absent);
}

void TCDbusServer::m_SweepClients()
{
    m_pLoad->m_isSweepSet = false;
    m_AskWhoIsThere();
    m_SweepLater();
}

void TCDbusServer::m_SweepLater()
{
    const TSharedLock lock(t_stateMutex);
    if (m_clients.size() > MANY_CLIENTS && !std::exchange(m_pLoad->m_isSweepSet, true))
    {
        m_pLoad->m_pSweep->SetIn(SWEEP_INTERVAL_MS);
    }
}

// --- The figures for the service
// ------------------------------------------------------------------

TCDbusServer::TSClientInfo TCDbusServer::m_Info(const std::string& name, const TSClient& client)
{
    const auto told = static_cast<std::ptrdiff_t>(std::min(client.m_events.size(), MAX_TOLD_TYPES));
    const auto begin = client.m_events.begin();
    return {name, {begin, begin + told}, client.m_events.size(), client.m_pAccount->m_isSuspended};
}

std::vector<TCDbusServer::TSClientInfo> TCDbusServer::Clients()
{
    std::vector<TSClientInfo> clients;
    if (!t_IsInOwnProcess())
    {
        return clients;
    }
    const TSharedLock lock(t_stateMutex);
    clients.reserve(m_clients.size());
    for (const auto& [name, client] : m_clients)
    {
        clients.push_back(m_Info(name, client));
    }
    return clients;
}

std::vector<TCDbusServer::TSClientInfo> TCDbusServer::ClientsOf(unsigned int userId)
{
    std::vector<TSClientInfo> clients;
    if (!t_IsInOwnProcess())
    {
        return clients;
    }
    const TSharedLock lock(t_stateMutex);
    if (m_clientsByUser.count(userId) != 0)
    {
        for (const auto& [name, client] : m_clients)
        {
            if (client.m_hasUser && client.m_userId == userId)
            {
                clients.push_back(m_Info(name, client));
            }
        }
    }
    return clients;
}

bool TCDbusServer::IsRegistered(const std::string& client, int type)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const TSharedLock lock(t_stateMutex);
    const auto found = m_clients.find(client);
    return found != m_clients.end() && found->second.Wants(type);
}

std::size_t TCDbusServer::SuspendedClients(std::size_t atMost, std::vector<std::string>& names)
{
    std::size_t count = 0;
    if (!t_IsInOwnProcess())
    {
        return count;
    }
    const TSharedLock lock(t_stateMutex);
    for (const auto& [name, client] : m_clients)
    {
        if (client.m_pAccount->m_isSuspended)
        {
            ++count;
            if (count <= atMost)
            {
                names.push_back(name);
            }
        }
    }
    return count;
}

TCDbusServer::TSServerLoad TCDbusServer::Load()
{
    TSServerLoad load;
    if (!t_IsInOwnProcess())
    {
        return load;
    }
    if (const TSessionPtr session = t_Session())
    {
        load.m_refusedCalls = session->Admission().NumberOfRefused();
    }
    const TSharedLock lock(t_stateMutex);
    load.m_clients = m_clients.size();
    load.m_types = m_numberOfTypes;
    load.m_clientsByUser = m_clientsByUser;
    return load;
}

} // namespace qor
