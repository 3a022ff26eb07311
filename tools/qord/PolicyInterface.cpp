// The interface com.norvane.qor.Policy1: its methods and properties on the bus.
#include "qord/PolicyInterface.h"

#include <exception>
#include <utility>

#include <qor/PolicyInterface.h>
#include <qor/QORDbus.h>

#include "common/Text.h"
#include "qord/PolicyInterfaceXml.h"
#include "qord/Report.h"

namespace qord
{
namespace
{

constexpr unsigned int MAX_WAIT_SECONDS = 3600;
constexpr std::size_t HASH_LENGTH = 64;
// The bytes of an answer besides the text.
constexpr std::size_t ANSWER_ROOM = 128;

constexpr std::size_t MAX_WORDS = 1000;

constexpr char INVALID_ARGUMENTS[] = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr char LIMITS_EXCEEDED[] = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr char FAILED[] = "org.freedesktop.DBus.Error.Failed";

const char* ErrorName(int result)
{
    switch (result)
    {
    case qor::POLICY_NOT_WELL_FORMED:
        return qor::ERROR_NOT_WELL_FORMED;
    case qor::POLICY_TOO_LARGE:
        return qor::ERROR_TOO_LARGE;
    case qor::POLICY_STATE_UNKNOWN:
        return qor::ERROR_STATE_UNKNOWN;
    case qor::POLICY_NOT_PERMITTED:
        return qor::ERROR_NOT_PERMITTED;
    case POLICY_CHANGED:
        return qor::ERROR_CHANGED;
    default:
        return qor::ERROR_NOT_STORED;
    }
}

// The words may repeat text of the caller, so they are cut: a message over the limit of the bus
// would close the connection.
void ReturnError(GDBusMethodInvocation* pInvocation, const char* name, const std::string& words)
{
    g_dbus_method_invocation_return_dbus_error(
        pInvocation, name, tools::Printable(words.substr(0, MAX_WORDS)).c_str());
}

bool IsHash(const std::string& text)
{
    return text.empty() || (text.size() == HASH_LENGTH &&
                            text.find_first_not_of("0123456789abcdef") == std::string::npos);
}

// Without a copy: a policy may be large.
GVariant* NewBytes(std::string bytes)
{
    auto* pOwned = new std::string(std::move(bytes));
    return g_variant_new_from_data(
        G_VARIANT_TYPE_BYTESTRING, pOwned->data(), pOwned->size(), TRUE,
        [](void* pData) { delete static_cast<std::string*>(pData); }, pOwned);
}

guint64 FirstNumber(GDBusMethodInvocation* pInvocation)
{
    guint64 number = 0;
    g_variant_get_child(g_dbus_method_invocation_get_parameters(pInvocation), 0, "t", &number);
    return number;
}

} // namespace

TCPolicyInterface::TCPolicyInterface(TSService service, TCPolicyHandler& handler,
                                     TCPolicyFacts& facts, TCHearingWaits& waits)
    : m_service(std::move(service)), m_handler(handler), m_facts(facts), m_waits(waits)
{
}

qor::TSServiceInterface TCPolicyInterface::Interface()
{
    return {POLICY_INTERFACE_XML,
            [this](GDBusMethodInvocation* pInvocation) { m_Handle(pInvocation); },
            [this](const std::string& name) { return m_ReadProperty(name); }};
}

// Runs inside the bus library, which takes no exception.
void TCPolicyInterface::m_Handle(GDBusMethodInvocation* pInvocation) noexcept
{
    const qor::TGlibPtr<GDBusMethodInvocation> pHeld(
        static_cast<GDBusMethodInvocation*>(g_object_ref(pInvocation)));
    try
    {
        m_Answer(pInvocation);
    }
    catch (const std::exception& exception)
    {
        ReportError("a request failed: %s", exception.what());
        ReturnError(pInvocation, FAILED, "the request failed; the service's log says why");
    }
}

void TCPolicyInterface::m_Answer(GDBusMethodInvocation* pInvocation)
{
    const std::string method = g_dbus_method_invocation_get_method_name(pInvocation);
    if (!m_service.m_isReady())
    {
        ReturnError(pInvocation, FAILED, "the service cannot serve, and ends");
    }
    else if (method == "SetPolicy")
    {
        m_SetPolicy(pInvocation, m_service.m_asker());
    }
    else if (method == "Restore")
    {
        m_Restore(pInvocation, m_service.m_asker());
    }
    else
    {
        m_AnswerRead(pInvocation, method);
    }
}

bool TCPolicyInterface::m_MayRead(GDBusMethodInvocation* pInvocation) const
{
    const EPermission permission = m_service.m_mayRead();
    if (permission == EPermission::REFUSED)
    {
        ReturnError(pInvocation, qor::ERROR_NOT_PERMITTED,
                    "only users who may change the policy may read that");
    }
    else if (permission == EPermission::UNKNOWN)
    {
        ReturnError(pInvocation, qor::ERROR_NOT_READ,
                    "the bus or the user database has not told whether the caller may read that; "
                    "try again");
    }
    return permission == EPermission::GRANTED;
}

void TCPolicyInterface::m_AnswerRead(GDBusMethodInvocation* pInvocation, const std::string& method)
{
    GVariant* pValue = nullptr;
    std::string policy;
    if (!m_MayRead(pInvocation))
    {
        return;
    }
    if (method == "ListPolicies")
    {
        pValue = m_facts.Policies();
    }
    else if (method == "ListClients")
    {
        pValue = m_facts.Clients(m_service.m_asker(), *m_pServer);
    }
    else if (!m_ReadPolicy(pInvocation, policy))
    {
        return;
    }
    else if (method == "GetPolicyBytes")
    {
        pValue = NewBytes(std::move(policy));
    }
    else if (g_utf8_validate(policy.data(), static_cast<gssize>(policy.size()), nullptr) != FALSE)
    {
        pValue = g_variant_new_string(policy.c_str());
    }
    else
    {
        ReturnError(pInvocation, qor::ERROR_NOT_TEXT,
                    "it is not UTF-8; GetPolicyBytes has its bytes");
        return;
    }
    g_dbus_method_invocation_return_value(pInvocation, g_variant_new_tuple(&pValue, 1));
}

bool TCPolicyInterface::m_ReadPolicy(GDBusMethodInvocation* pInvocation, std::string& policy) const
{
    const guint64 number = FirstNumber(pInvocation);
    std::string error;
    if (m_handler.Store().Read(number, policy, qor::TCDbus::MaxPayload() - ANSWER_ROOM, error))
    {
        return true;
    }
    const std::string name =
        number == 0 ? "the policy in force" : "policy " + std::to_string(number);
    if (error.empty())
    {
        ReturnError(pInvocation, qor::ERROR_NO_SUCH_POLICY,
                    number == 0 ? "there is no policy yet" : "there is no " + name);
        return false;
    }
    const qor::TSPeer peer = m_pServer->CurrentPeer();
    m_handler.Refusals().Write(peer.m_isKnown ? std::optional<uid_t>(peer.m_userId) : std::nullopt,
                               {}, name + " was asked for and cannot be read: " + error);
    ReturnError(pInvocation, qor::ERROR_NOT_READ,
                name + " cannot be read; the service's log says why");
    return false;
}

bool TCPolicyInterface::m_ReadOptions(GDBusMethodInvocation* pInvocation, TSOptions& options) const
{
    const qor::TGlibPtr<GVariant> pOptions(
        g_variant_get_child_value(g_dbus_method_invocation_get_parameters(pInvocation), 1));
    GVariantIter iterator;
    g_variant_iter_init(&iterator, pOptions.get());
    const char* name = nullptr;
    GVariant* pNext = nullptr;
    while (g_variant_iter_next(&iterator, "{&sv}", &name, &pNext) != FALSE)
    {
        const qor::TGlibPtr<GVariant> pValue(pNext);
        const bool isText = g_variant_is_of_type(pNext, G_VARIANT_TYPE_STRING) != FALSE;
        const bool isNumber = g_variant_is_of_type(pNext, G_VARIANT_TYPE_UINT32) != FALSE;
        const std::string option = name;
        if (option == "if-match" && isText && IsHash(g_variant_get_string(pNext, nullptr)))
        {
            options.m_ifMatch = g_variant_get_string(pNext, nullptr);
        }
        else if (option == "wait" && isNumber && g_variant_get_uint32(pNext) <= MAX_WAIT_SECONDS)
        {
            options.m_waitSeconds = g_variant_get_uint32(pNext);
        }
        else
        {
            ReturnError(pInvocation, INVALID_ARGUMENTS,
                        "the option " + option +
                            " is not one of: if-match, a SHA-256 in lower-case hexadecimal or an "
                            "empty text (s); wait, seconds up to 3600 (u)");
            return false;
        }
    }
    if (options.m_waitSeconds != 0 && m_waits.IsFull())
    {
        ReturnError(pInvocation, LIMITS_EXCEEDED, "too many callers wait for applications to hear");
        return false;
    }
    return true;
}

void TCPolicyInterface::m_SetPolicy(GDBusMethodInvocation* pInvocation, const TSAsker& asker)
{
    TSOptions options;
    if (m_ReadOptions(pInvocation, options))
    {
        const qor::TGlibPtr<GVariant> pPolicy(
            g_variant_get_child_value(g_dbus_method_invocation_get_parameters(pInvocation), 0));
        gsize size = 0;
        const char* text = g_variant_get_string(pPolicy.get(), &size);
        m_Set(pInvocation, asker, std::string_view(text, size), options);
    }
}

void TCPolicyInterface::m_Restore(GDBusMethodInvocation* pInvocation, const TSAsker& asker)
{
    TSOptions options;
    std::string policy;
    if (asker.m_permission == EPermission::REFUSED)
    {
        ReturnError(pInvocation, qor::ERROR_NOT_PERMITTED, "the sender may not change the policy");
    }
    else if (m_ReadOptions(pInvocation, options) && m_ReadPolicy(pInvocation, policy))
    {
        m_Set(pInvocation, asker, policy, options);
    }
}

void TCPolicyInterface::m_Set(GDBusMethodInvocation* pInvocation, const TSAsker& asker,
                              std::string_view policy, const TSOptions& options)
{
    const TSVerdict verdict = m_handler.Set(policy, asker, options.m_ifMatch);
    if (verdict.m_result == qor::POLICY_STORED || verdict.m_result == qor::POLICY_STATE_UNKNOWN)
    {
        m_service.m_onStored();
    }
    if (verdict.m_result != qor::POLICY_STORED)
    {
        ReturnError(pInvocation, ErrorName(verdict.m_result), verdict.m_words);
    }
    else if (options.m_waitSeconds != 0)
    {
        m_waits.Add(*m_pServer, pInvocation, verdict.m_sha256, policy.size(),
                    options.m_waitSeconds);
    }
    else
    {
        TCDictionary about;
        AddStored(about, verdict.m_sha256, policy.size());
        g_dbus_method_invocation_return_value(pInvocation, g_variant_new("(@a{sv})", about.End()));
    }
}

GVariant* TCPolicyInterface::m_ReadProperty(const std::string& name) noexcept
{
    try
    {
        return m_service.m_isReady()
                   ? m_facts.Property(name, m_service.m_mayRead() == EPermission::GRANTED,
                                      *m_pServer)
                   : nullptr;
    }
    catch (const std::exception& exception)
    {
        ReportError("the property %s cannot be told: %s", name.c_str(), exception.what());
        return nullptr;
    }
}

void TCPolicyInterface::TellChange(bool isTold)
{
    const std::string hash = m_facts.HashInForce();
    if (std::exchange(m_told, hash) == hash || m_pServer == nullptr)
    {
        return;
    }
    m_pServer->EmitSignal(
        qor::POLICY_INTERFACE, "PolicyChanged",
        g_variant_new("(s@a{sv})", isTold ? hash.c_str() : "",
                      isTold ? m_facts.Details()
                             : g_variant_new_array(G_VARIANT_TYPE("{sv}"), nullptr, 0)));
    constexpr const char* CHANGED[] = {"PolicySha256", "PolicySize", "PolicySetAt", "PolicySetBy",
                                       "PolicyWellFormed"};
    TCDictionary values;
    GVariantBuilder names;
    g_variant_builder_init(&names, G_VARIANT_TYPE_STRING_ARRAY);
    for (const char* name : CHANGED)
    {
        if (isTold)
        {
            values.Add(name, m_facts.Property(name, true, *m_pServer));
        }
        else
        {
            g_variant_builder_add(&names, "s", name);
        }
    }
    m_pServer->EmitSignal(
        "org.freedesktop.DBus.Properties", "PropertiesChanged",
        g_variant_new("(s@a{sv}as)", qor::POLICY_INTERFACE, values.End(), &names));
}

} // namespace qord
