// Reads the service's facts about itself, the policy and the applications.
#include "qorctl/ServiceFacts.h"

#include <algorithm>
#include <initializer_list>
#include <utility>

#include <qor/PolicyInterface.h>

#include "common/SystemBus.h"
#include "common/Text.h"
#include "qorctl/ServiceCall.h"

namespace qorctl
{
namespace
{

constexpr bool STARTS_NO_SERVICE = false;

std::string MemberName(std::string name)
{
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

// NOLINTNEXTLINE(misc-no-recursion): a message nests values 64 deep at most
TJson ToList(GVariant* pValue)
{
    const bool isDictionary = g_variant_is_of_type(pValue, G_VARIANT_TYPE_DICTIONARY) != FALSE;
    TJson list = isDictionary ? TJson::object() : TJson::array();
    for (gsize i = 0; i < g_variant_n_children(pValue); ++i)
    {
        const qor::TGlibPtr<GVariant> pChild(g_variant_get_child_value(pValue, i));
        if (!isDictionary)
        {
            list.push_back(ToJson(pChild.get()));
            continue;
        }
        const qor::TGlibPtr<GVariant> pKey(g_variant_get_child_value(pChild.get(), 0));
        const qor::TGlibPtr<GVariant> pMember(g_variant_get_child_value(pChild.get(), 1));
        const TJson key = ToJson(pKey.get());
        list[MemberName(key.is_string() ? key.get<std::string>() : key.dump())] =
            ToJson(pMember.get());
    }
    return list;
}

TJson Time(const TJson& seconds)
{
    return seconds.is_number() && seconds != 0
               ? TJson(tools::LocalTime(seconds.get<std::int64_t>()))
               : TJson();
}

// Of one policy; the order is that of the output.
TJson Policy(const TJson& told)
{
    return {{"bytes", Part(told, "size")},
            {"sha256", Part(told, "sha256")},
            {"set_at", Time(Part(told, "set_at"))},
            {"set_by", Part(told, "set_by")}};
}

TJson InForce(const TJson& properties)
{
    TJson policy = {{"file", Part(properties, "PolicyFile")},
                    {"present", !Text(properties, "PolicySha256").empty()}};
    if (policy["present"] == true)
    {
        const TJson setter = Part(properties, "PolicySetBy");
        policy.update(Policy({{"size", Part(properties, "PolicySize")},
                              {"sha256", Part(properties, "PolicySha256")},
                              {"set_at", Part(properties, "PolicySetAt")},
                              {"set_by", setter.empty() ? TJson() : setter}}));
        policy["well_formed"] = Part(properties, "PolicyWellFormed");
    }
    return policy;
}

TJson Kept(const TJson& policies)
{
    TJson kept = TJson::array();
    for (const TJson& policy : policies)
    {
        if (Part(policy, "number") != 0)
        {
            TJson one = {{"number", Part(policy, "number")}};
            one.update(Policy(policy));
            kept.push_back(one);
        }
    }
    return kept;
}

TJson Clients(TJson clients)
{
    for (TJson& client : clients)
    {
        if (client.is_object())
        {
            client["heard_at"] = Time(Part(client, "heard_at"));
        }
    }
    return clients;
}

TJson LastEvent(TJson event)
{
    if (!event.is_object() || event.empty())
    {
        return {};
    }
    event["at"] = Time(Part(event, "at"));
    return event;
}

TJson AskList(const TSOptions& options, const char* method)
{
    const auto answer = CallService(options, method, nullptr, USUAL_WAIT, STARTS_NO_SERVICE);
    return IsGood(answer.m_send) &&
                   g_variant_is_of_type(answer.m_pBody.get(), G_VARIANT_TYPE("(aa{sv})"))
               ? ToJson(answer.m_pBody.get()).at(0)
               : TJson::array();
}

} // namespace

// NOLINTNEXTLINE(misc-no-recursion): as above
TJson ToJson(GVariant* pValue)
{
    switch (g_variant_classify(pValue))
    {
    case G_VARIANT_CLASS_BOOLEAN:
        return g_variant_get_boolean(pValue) != FALSE;
    case G_VARIANT_CLASS_INT32:
        return g_variant_get_int32(pValue);
    case G_VARIANT_CLASS_UINT32:
        return g_variant_get_uint32(pValue);
    case G_VARIANT_CLASS_INT64:
        return g_variant_get_int64(pValue);
    case G_VARIANT_CLASS_UINT64:
        return g_variant_get_uint64(pValue);
    case G_VARIANT_CLASS_STRING:
        return g_variant_get_string(pValue, nullptr);
    case G_VARIANT_CLASS_VARIANT:
    {
        const qor::TGlibPtr<GVariant> pInner(g_variant_get_variant(pValue));
        return ToJson(pInner.get());
    }
    case G_VARIANT_CLASS_ARRAY:
    case G_VARIANT_CLASS_TUPLE:
        return ToList(pValue);
    default:
        return {}; // nothing of this kind is told
    }
}

TJson AskProperties(const TSOptions& options, qor::TSMethodResult& result,
                    std::chrono::milliseconds atMost)
{
    result = Endpoint(options)->CallMethod("org.freedesktop.DBus.Properties", "GetAll",
                                           g_variant_new("(s)", qor::POLICY_INTERFACE),
                                           MillisecondsLeft(atMost), {}, STARTS_NO_SERVICE);
    if (!IsGood(result.m_send) ||
        !g_variant_is_of_type(result.m_pBody.get(), G_VARIANT_TYPE("(a{sv})")))
    {
        return {};
    }
    return ToJson(result.m_pBody.get()).at(0);
}

TJson AskStatus(const TSOptions& options, qor::TSMethodResult& result)
{
    const TJson properties = AskProperties(options, result);
    if (!properties.is_object())
    {
        return {};
    }
    TJson status;
    status["service"] = {{"name", tools::ServiceName(options.m_testNames)},
                         {"version", Part(properties, "Version")},
                         {"unique_name", result.m_sender},
                         {"process_id", Part(properties, "ProcessId")},
                         {"user", Part(properties, "User")},
                         {"up_since", Time(Part(properties, "UpSince"))}};
    status["problems"] = Part(properties, "Problems");
    status["may_change"] = Part(properties, "MayChange");
    status["since_start"] = {{"stored", Part(properties, "PoliciesStored")},
                             {"refused", Part(properties, "PoliciesRefused")},
                             {"delivered", Part(properties, "EventsDelivered")},
                             {"failed", Part(properties, "EventsFailed")}};
    if (properties.contains("PolicySha256"))
    {
        status["policy"] = InForce(properties);
        status["keep"] = Part(properties, "PoliciesKept");
        status["kept"] = Kept(AskList(options, "ListPolicies"));
        status["clients"] = Clients(AskList(options, "ListClients"));
        status["last_event"] = LastEvent(Part(properties, "LastEvent"));
    }
    return status;
}

} // namespace qorctl
