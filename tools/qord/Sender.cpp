// Who is behind a name on the bus.
#include "qord/Sender.h"

#include <grp.h>
#include <pwd.h>

#include <fstream>
#include <iterator>

#include <gio/gio.h>

#include "common/Text.h"

namespace qord
{
namespace
{

constexpr int ANSWER_LIMIT_MS = 2000;

struct TSAnswer
{
    bool m_isThere = false;
    qor::TGlibPtr<GVariant> m_value;
    qor::TGlibPtr<GError> m_error;
};

void TakeAnswer(GObject* pConnection, GAsyncResult* pResult, void* pAnswer)
{
    auto* pThis = static_cast<TSAnswer*>(pAnswer);
    GError* pError = nullptr;
    pThis->m_value.reset(g_dbus_connection_call_finish(
        reinterpret_cast<GDBusConnection*>(pConnection), pResult, &pError));
    pThis->m_error.reset(pError);
    pThis->m_isThere = true;
}

std::vector<gid_t> GroupsOfDatabase(uid_t userId)
{
    passwd entry = {};
    passwd* pFound = nullptr;
    char buffer[4096];
    getpwuid_r(userId, &entry, buffer, sizeof buffer, &pFound);
    if (pFound == nullptr)
    {
        return {};
    }
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0)
    {
        groups.resize(static_cast<std::size_t>(count));
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

std::vector<gid_t> Groups(GVariant* pCredentials, uid_t userId)
{
    const qor::TGlibPtr<GVariant> told(
        g_variant_lookup_value(pCredentials, "UnixGroupIDs", G_VARIANT_TYPE("au")));
    if (!told)
    {
        return GroupsOfDatabase(userId);
    }
    gsize count = 0;
    const auto* pGroups =
        static_cast<const guint32*>(g_variant_get_fixed_array(told.get(), &count, sizeof(guint32)));
    return std::vector<gid_t>(pGroups, pGroups + count);
}

std::string ProgramOf(pid_t processId)
{
    std::ifstream file("/proc/" + std::to_string(processId) + "/comm", std::ios::binary);
    std::string name(std::istreambuf_iterator<char>(file), {});
    name.resize(name.empty() ? 0 : name.size() - 1); // its newline
    return tools::Printable(name);
}

} // namespace

TCSenders::TCSenders() : m_context(g_main_context_new()) {}

std::optional<TSSender> TCSenders::Find(GDBusConnection* pConnection, const std::string& name,
                                        std::string& error)
{
    const auto credentials = m_Ask(pConnection, name, error);
    if (!credentials)
    {
        return std::nullopt;
    }
    guint32 userId = 0;
    guint32 processId = 0;
    if (g_variant_lookup(credentials.get(), "UnixUserID", "u", &userId) == FALSE)
    {
        error = "the bus does not know its user";
        return std::nullopt;
    }
    TSSender sender;
    sender.m_userId = userId;
    sender.m_userName = tools::UserName(userId);
    sender.m_groups = Groups(credentials.get(), userId);
    if (g_variant_lookup(credentials.get(), "ProcessID", "u", &processId) != FALSE)
    {
        sender.m_processId = static_cast<pid_t>(processId);
        sender.m_program = ProgramOf(sender.m_processId);
    }
    return sender;
}

qor::TGlibPtr<GVariant> TCSenders::m_Ask(GDBusConnection* pConnection, const std::string& name,
                                         std::string& error)
{
    TSAnswer answer;
    g_main_context_push_thread_default(m_context.get());
    g_dbus_connection_call(pConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "GetConnectionCredentials",
                           g_variant_new("(s)", name.c_str()), G_VARIANT_TYPE("(a{sv})"),
                           G_DBUS_CALL_FLAGS_NONE, ANSWER_LIMIT_MS, nullptr, TakeAnswer, &answer);
    while (!answer.m_isThere)
    {
        g_main_context_iteration(m_context.get(), TRUE);
    }
    g_main_context_pop_thread_default(m_context.get());
    if (!answer.m_value)
    {
        error = answer.m_error->message;
        return nullptr;
    }
    return qor::TGlibPtr<GVariant>(g_variant_get_child_value(answer.m_value.get(), 0));
}

std::string Describe(const TSSender& sender)
{
    return "user " + std::to_string(sender.m_userId) + " (" + sender.m_userName + "), process " +
           std::to_string(sender.m_processId) + " (" + sender.m_program + ")";
}

} // namespace qord
