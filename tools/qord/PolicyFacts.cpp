// Facts about the service, the policy and the applications, as D-Bus values.
#include "qord/PolicyFacts.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <utility>

#include <boost/filesystem/operations.hpp>

#include <qor/ICallbacks.h>

#include "common/Events.h"
#include "common/Text.h"
#include "qord/Dictionary.h"
#include "qord/Directory.h"

namespace qord
{
namespace
{

using TClock = std::chrono::steady_clock;

// So many users are told of.
constexpr std::size_t MAX_USERS = 16;
GVariant* Texts(const std::vector<std::string>& texts)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_STRING_ARRAY);
    for (const std::string& text : texts)
    {
        g_variant_builder_add(&builder, "s", tools::Printable(text).c_str());
    }
    return g_variant_builder_end(&builder);
}

GVariant* Setter(const std::optional<TSSender>& setter)
{
    TCDictionary about;
    if (setter)
    {
        about.Add("user-id", g_variant_new_uint32(setter->m_userId));
        about.Add("user", UserOf(*setter));
        about.Add("process-id", g_variant_new_int32(setter->m_processId));
        about.Add("program", setter->m_program);
    }
    return about.End();
}

void AddFile(TCDictionary& about, const struct stat& file, const TCPolicyHistory::TSEntry& entry)
{
    about.Add("size", g_variant_new_uint64(static_cast<guint64>(file.st_size)));
    about.Add("set-at", g_variant_new_uint64(static_cast<guint64>(file.st_mtim.tv_sec)));
    if (entry.m_setter)
    {
        about.Add("set-by", Setter(entry.m_setter));
    }
}

GVariant* Types(const std::vector<int>& types)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("ai"));
    for (const int type : types)
    {
        g_variant_builder_add(&builder, "i", type);
    }
    return g_variant_builder_end(&builder);
}

// Of the users that have most.
GVariant* ByUser(const std::map<unsigned int, std::size_t>& clients)
{
    std::vector<std::pair<std::size_t, unsigned int>> users;
    users.reserve(clients.size());
    for (const auto& [user, count] : clients)
    {
        users.emplace_back(count, user);
    }
    const std::size_t told = std::min(users.size(), MAX_USERS);
    std::partial_sort(users.begin(), users.begin() + static_cast<std::ptrdiff_t>(told), users.end(),
                      std::greater<>());
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a{uu}"));
    for (std::size_t i = 0; i < told; ++i)
    {
        g_variant_builder_add(&builder, "{uu}", users[i].second,
                              static_cast<guint32>(users[i].first));
    }
    return g_variant_builder_end(&builder);
}

GVariant* Client(const qor::TCDbusServer::TSClientInfo& client, bool isListening,
                 const TSApplication& application, const std::string& policy)
{
    TCDictionary about;
    about.Add("name", client.m_name);
    about.Add("types", Types(client.m_types));
    about.Add("number-of-types",
              g_variant_new_uint32(static_cast<guint32>(client.m_numberOfTypes)));
    about.Add("listens", g_variant_new_boolean(isListening));
    about.Add("suspended", g_variant_new_boolean(client.m_isSuspended));
    about.Add("heard", g_variant_new_boolean(!policy.empty() && application.m_heard == policy));
    if (application.m_heardAt != 0)
    {
        about.Add("heard-at", g_variant_new_uint64(static_cast<guint64>(application.m_heardAt)));
    }
    if (application.m_isKnown)
    {
        const TSSender& sender = application.m_sender;
        about.Add("user-id", g_variant_new_uint32(sender.m_userId));
        about.Add("user", UserOf(sender));
        about.Add("process-id", g_variant_new_int32(sender.m_processId));
        about.Add("program", sender.m_program);
    }
    return about.End();
}

GVariant* Event(const TSEventResult& result)
{
    TCDictionary about;
    if (result.m_number != 0)
    {
        about.Add("event", tools::EventName(result.m_type));
        about.Add("at", g_variant_new_uint64(static_cast<guint64>(result.m_time)));
        about.Add("delivered", g_variant_new_uint32(static_cast<guint32>(result.m_delivered)));
        about.Add("failed", g_variant_new_uint32(static_cast<guint32>(result.m_failed)));
        about.Add("missed", NotHeard(result.m_missed));
    }
    return about.End();
}

bool IsSameFile(const struct stat& left, const struct stat& right)
{
    return left.st_ino == right.st_ino && left.st_dev == right.st_dev &&
           left.st_size == right.st_size && left.st_mtim.tv_sec == right.st_mtim.tv_sec &&
           left.st_mtim.tv_nsec == right.st_mtim.tv_nsec &&
           left.st_ctim.tv_sec == right.st_ctim.tv_sec &&
           left.st_ctim.tv_nsec == right.st_ctim.tv_nsec;
}

// What is known of its text says nothing about that.
bool IsReadable(const std::string& file)
{
    const TCDescriptor opened(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return opened.Get() >= 0;
}

} // namespace

GVariant* NotHeard(const std::vector<TSMissed>& missed)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("aa{sv}"));
    for (const TSMissed& one : missed)
    {
        TCDictionary about;
        about.Add("name", one.m_name);
        about.Add("program", one.m_sender.m_program);
        about.Add("process-id", g_variant_new_int32(one.m_sender.m_processId));
        about.Add("outcome", one.m_outcome);
        g_variant_builder_add_value(&builder, about.End());
    }
    return g_variant_builder_end(&builder);
}

TCPolicyFacts::TCPolicyFacts(const TSOptions& options, TCPolicyHandler& handler, TCEvents& events,
                             const TCPermission& permission, TCUserDatabase& users)
    : m_options(options),
      m_handler(handler),
      m_events(events),
      m_permission(permission),
      m_users(users),
      m_policyFile(boost::filesystem::absolute(options.m_policyFile).string()),
      m_upSince(std::time(nullptr))
{
}

// Reads the file again only if it has changed, because properties are asked for one by one.
const TCPolicyFacts::TSInForce& TCPolicyFacts::m_Look()
{
    struct stat file = {};
    const bool isThere = stat(m_options.m_policyFile.c_str(), &file) == 0;
    if (isThere == m_inForce.m_isThere && (!isThere || IsSameFile(file, m_inForce.m_file)))
    {
        return m_inForce;
    }
    m_inForce = {};
    const auto policies = m_handler.Store().List();
    if (!policies.empty() && policies.back().m_number == 0)
    {
        m_inForce.m_isThere = true;
        m_inForce.m_file = policies.back().m_status;
        m_inForce.m_entry = m_handler.History().Find(m_handler.Store(), policies.back());
        m_inForce.m_isGood =
            IsReadable(m_options.m_policyFile) && m_handler.IsGood(m_inForce.m_entry.m_sha256);
    }
    return m_inForce;
}

const std::string& TCPolicyFacts::HashInForce()
{
    return m_Look().m_entry.m_sha256;
}

GVariant* TCPolicyFacts::Details()
{
    TCDictionary about;
    if (const TSInForce& inForce = m_Look(); inForce.m_isThere)
    {
        AddFile(about, inForce.m_file, inForce.m_entry);
    }
    return about.End();
}

const TCPolicyFacts::TFacts& TCPolicyFacts::m_OfService()
{
    static const TFacts s_facts = {
        {"Version", [](TCPolicyFacts&, TServer&) { return g_variant_new_string(QOR_VERSION); }},
        {"ProcessId", [](TCPolicyFacts&, TServer&)
         { return g_variant_new_uint32(static_cast<guint32>(getpid())); }},
        {"User", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_string(facts.m_users.NameOrNumber(geteuid()).c_str()); }},
        {"UpSince", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_uint64(static_cast<guint64>(facts.m_upSince)); }},
        {"MayChange", [](TCPolicyFacts& facts, TServer&) { return facts.m_MayChange(); }},
        {"PoliciesKept", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_uint32(facts.m_options.m_storeRules.m_copies); }},
        {"Clients", [](TCPolicyFacts&, TServer& service)
         { return g_variant_new_uint32(static_cast<guint32>(service.Load().m_clients)); }},
        {"RegisteredTypes", [](TCPolicyFacts&, TServer& service)
         { return g_variant_new_uint64(service.Load().m_types); }},
        {"CallsRefused", [](TCPolicyFacts&, TServer& service)
         { return g_variant_new_uint64(service.Load().m_refusedCalls); }},
        {"PoliciesStored", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_uint64(facts.m_handler.NumberOfStored()); }},
        {"PoliciesRefused", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_uint64(facts.m_handler.NumberOfRefused()); }},
        {"EventsDelivered", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_uint64(facts.m_events.NumberOfDelivered()); }},
        {"EventsFailed", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_uint64(facts.m_events.NumberOfFailed()); }}};
    return s_facts;
}

const TCPolicyFacts::TFacts& TCPolicyFacts::m_OfPolicy()
{
    static const TFacts s_facts = {
        {"PolicyFile", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_string(tools::Printable(facts.m_policyFile).c_str()); }},
        {"PolicySha256", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_string(tools::Printable(facts.HashInForce()).c_str()); }},
        {"PolicySize", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_uint64(static_cast<guint64>(facts.m_Look().m_file.st_size)); }},
        {"PolicySetAt",
         [](TCPolicyFacts& facts, TServer&) {
             return g_variant_new_uint64(
                 static_cast<guint64>(facts.m_Look().m_file.st_mtim.tv_sec));
         }},
        {"PolicySetBy",
         [](TCPolicyFacts& facts, TServer&) { return Setter(facts.m_Look().m_entry.m_setter); }},
        {"PolicyWellFormed", [](TCPolicyFacts& facts, TServer&)
         { return g_variant_new_boolean(facts.m_Look().m_isGood); }},
        {"ClientsByUser",
         [](TCPolicyFacts&, TServer& service) { return ByUser(service.Load().m_clientsByUser); }},
        {"LastEvent", [](TCPolicyFacts& facts, TServer&) { return Event(facts.m_events.Last()); }}};
    return s_facts;
}

// Anybody may know what is of the service; what is of the policy, those who may read it.
GVariant* TCPolicyFacts::Property(const std::string& name, bool mayRead, qor::TCDbusServer& server)
{
    if (name == "Problems")
    {
        return Texts(m_Problems(mayRead, server));
    }
    for (const TFacts* pFacts : {&m_OfService(), mayRead ? &m_OfPolicy() : &m_OfService()})
    {
        const auto fact = pFacts->find(name);
        if (fact != pFacts->end())
        {
            return fact->second(*this, server);
        }
    }
    return nullptr;
}

GVariant* TCPolicyFacts::m_MayChange() const
{
    std::vector<std::string> users = {m_users.NameOrNumber(0)};
    if (geteuid() != 0)
    {
        users.push_back(m_users.NameOrNumber(geteuid()));
    }
    TCDictionary about;
    about.Add("everyone", g_variant_new_boolean(m_options.m_permission.m_everyone));
    about.Add("users", Texts(users));
    about.Add("groups", Texts(m_options.m_permission.m_groups));
    about.Add("missing-groups", Texts(m_permission.MissingGroups()));
    return about.End();
}

GVariant* TCPolicyFacts::Policies()
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("aa{sv}"));
    for (const TSStoredPolicy& policy : m_handler.Store().List())
    {
        const auto entry = m_handler.History().Find(m_handler.Store(), policy);
        TCDictionary about;
        about.Add("number", g_variant_new_uint64(policy.m_number));
        about.Add("sha256", entry.m_sha256);
        AddFile(about, policy.m_status, entry);
        g_variant_builder_add_value(&builder, about.End());
    }
    return g_variant_builder_end(&builder);
}

// Only users who may change the policy see the clients of others.
GVariant* TCPolicyFacts::Clients(const TSAsker& asker, qor::TCDbusServer& server)
{
    const bool isForAll = asker.m_permission == EPermission::GRANTED;
    const auto clients = isForAll                 ? server.Clients()
                         : asker.m_peer.m_isKnown ? server.ClientsOf(asker.m_peer.m_userId)
                                                  : std::vector<qor::TCDbusServer::TSClientInfo>();
    const std::string policy = MarkOfPolicyInForce(m_handler.Store());
    const TApplications none;
    const TApplications& applications = clients.empty() ? none : m_events.Applications(server);
    const auto end = TClock::now() + TCUserDatabase::PATIENCE; // for all names together
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("aa{sv}"));
    for (const auto& client : clients)
    {
        const auto found = applications.find(client.m_name);
        if (found != applications.end())
        {
            AskForUserName(found->second->m_sender, m_users,
                           std::chrono::duration_cast<TCUserDatabase::TPatience>(
                               std::max(end - TClock::now(), TClock::duration::zero())));
            g_variant_builder_add_value(&builder, Client(client, IsListening(server, client.m_name),
                                                         *found->second, policy));
        }
    }
    return g_variant_builder_end(&builder);
}

// NumberOfClients would write a line each time, and this is told again and again.
std::string TCPolicyFacts::Summary(qor::TCDbusServer& server)
{
    const TSInForce& inForce = m_Look();
    const std::string policy =
        inForce.m_isThere ? "a policy of " + std::to_string(inForce.m_file.st_size) + " bytes"
                          : "no policy yet";
    return policy + (inForce.m_isThere && !inForce.m_isGood ? " that is no good, " : ", ") +
           std::to_string(server.Load().m_clients) + " clients";
}

} // namespace qord
