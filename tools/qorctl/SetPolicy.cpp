// qorctl set-policy and restore: puts a policy into force and puts the outcome into words.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>

#include <gio/gio.h>

#include <qor/PolicyInterface.h>
#include <qor/PolicyMessage.h>
#include <qor/api.h>

#include "common/ExitStatus.h"
#include "common/Text.h"
#include "qorctl/Commands.h"
#include "qorctl/Message.h"
#include "qorctl/PolicyText.h"
#include "qorctl/ServiceCall.h"
#include "qorctl/ServiceFacts.h"
#include "qorctl/StatusWords.h"

namespace qorctl
{
namespace
{

// The result where another policy is in force than --if-match says; beside qor::EPolicyResult.
constexpr int CHANGED = 6;

// The time for an answer, without the time of --wait.
constexpr std::chrono::seconds ANSWER_TIME(10);

struct TSOutcome
{
    int m_result = qor::POLICY_STORED;
    std::string m_words; ///< The service's reason, if it has given one.
    std::string m_sha256;
    std::uint64_t m_size = 0;
    TJson m_heard; ///< Its facts about the applications; null without --wait.
};

// As far as the service tells.
std::string WhoMay(const TSOptions& options)
{
    qor::TSMethodResult result;
    const std::string who =
        MayChange({{"may_change", Part(AskProperties(options, result), "MayChange")}});
    return who.empty() ? "" : "; these may: " + who;
}

std::string Words(const TSOptions& options, const TSOutcome& outcome)
{
    switch (outcome.m_result)
    {
    case qor::POLICY_NOT_WELL_FORMED:
        return "it is not well-formed XML; qorctl validate shows where";
    case qor::POLICY_NOT_STORED:
        return "it could not store it; its log says why";
    case qor::POLICY_TOO_LARGE:
        return "its " + std::to_string(outcome.m_size) +
               " bytes, or the work to check them, are more than the service accepts";
    case qor::POLICY_STATE_UNKNOWN:
        return "its disk failed half-way, and nobody knows which policy is in force; "
               "set it again, or look with qorctl get-policy";
    case qor::POLICY_NOT_PERMITTED:
        return tools::UserName(geteuid()) + " may not change the policy" + WhoMay(options);
    default:
        return "result code " + std::to_string(outcome.m_result);
    }
}

int ReportHeard(const TSOptions& options, const TJson& heard)
{
    const TJson applications = Part(heard, "applications");
    const TJson notHeard = Part(heard, "not_heard");
    const std::string listening =
        Text(heard, "applications") + (applications == 1 ? " application" : " applications");
    if (Part(heard, "superseded") == true)
    {
        SayError("it is not known which applications have heard of it: another policy has come "
                 "into force");
        return tools::EXIT_NOT_HEARD;
    }
    if (!applications.is_number() || !notHeard.is_array())
    {
        SayError("it is not known which applications have heard of it: the service does not tell");
        return tools::EXIT_NOT_HEARD;
    }
    if (notHeard.empty())
    {
        Say(options.m_quiet || options.m_json,
            applications == 0 ? "No application listens." : listening + " heard of it.");
        return tools::EXIT_OK;
    }
    std::string who;
    for (const TJson& client : notHeard)
    {
        who += (who.empty() ? "" : ", ") + Client(client, Text(client, "outcome"));
    }
    SayError(std::to_string(notHeard.size()) + " of " + listening +
             " did not hear of it in time: " + who);
    return tools::EXIT_NOT_HEARD;
}

int Report(const TSOptions& options, const TSOutcome& outcome, const std::string& what)
{
    const bool isStored = outcome.m_result == qor::POLICY_STORED;
    const std::string words =
        isStored
            ? "The service has stored " + what + " (" + std::to_string(outcome.m_size) + " bytes)."
            : "the service refused " + what + ": " +
                  (outcome.m_words.empty() ? Words(options, outcome) : outcome.m_words);
    TJson told = {{"stored", isStored},
                  {"result", outcome.m_result},
                  {"bytes", outcome.m_size},
                  {"sha256", outcome.m_sha256},
                  {"message", words}};
    int exitStatus = isStored ? tools::EXIT_OK : tools::EXIT_REFUSED;
    if (!isStored)
    {
        SayError(words);
    }
    else
    {
        Say(options.m_quiet || options.m_json, words);
        if (outcome.m_heard.is_object())
        {
            exitStatus = ReportHeard(options, outcome.m_heard);
            told["applications"] = Part(outcome.m_heard, "applications");
            told["not_heard"] = Part(outcome.m_heard, "not_heard");
        }
    }
    if (options.m_json)
    {
        PrintJson(told);
    }
    return exitStatus;
}

// Of a policy that was not answered.
bool MayComeIntoForce(const qor::TSSendResult& result)
{
    return result.m_status == qor::ESendStatus::NO_ANSWER ||
           (result.m_status == qor::ESendStatus::NO_BUS &&
            result.m_code != G_IO_ERROR_NOT_CONNECTED);
}

int SayNotDelivered(const qor::TSSendResult& sent, const std::string& what)
{
    SayError(
        what + " was not delivered: " + WhyNot(sent) +
        (MayComeIntoForce(sent) ? "; the request may still take effect, qorctl status tells" : ""));
    return tools::EXIT_NOT_DELIVERED;
}

// Over the channel, which every service has.
int Send(const TSOptions& options, const std::string& text, const std::string& what)
{
    const auto endpoint = Endpoint(options); // the control object shares it
    const auto result = qor::api::GetPolicyControl()->SetPolicy(text, MillisecondsLeft(), {});
    const qor::TSSendResult& sent = result.m_send;
    if (IsGood(sent))
    {
        return Report(options, {result.m_result, "", tools::Sha256(text), text.size(), TJson()},
                      what);
    }
    if (sent.m_status == qor::ESendStatus::FAILED && sent.m_code == G_IO_ERROR_INVALID_DATA)
    {
        SayError("the service sent something else than an answer: " + sent.m_text);
        return tools::EXIT_BAD_ANSWER;
    }
    return SayNotDelivered(sent, what);
}

// The service looks at the time often enough to answer before this process ends.
unsigned int SecondsToWait(const TSOptions& options)
{
    const auto left = std::chrono::duration_cast<std::chrono::seconds>(
        TimeLeft(std::chrono::seconds(options.m_waitSeconds)));
    return std::max(1U, static_cast<unsigned int>(left.count()));
}

GVariant* CallOptions(const TSOptions& options, unsigned int waitSeconds)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    if (options.m_ifMatch)
    {
        g_variant_builder_add(&builder, "{sv}", "if-match",
                              g_variant_new_string(options.m_ifMatch->c_str()));
    }
    if (waitSeconds != 0)
    {
        g_variant_builder_add(&builder, "{sv}", "wait", g_variant_new_uint32(waitSeconds));
    }
    return g_variant_builder_end(&builder);
}

// Empty if the error is not one of those for a refused policy.
std::optional<int> ResultOf(const std::string& errorName)
{
    static const std::map<std::string, int> RESULTS = {
        {qor::ERROR_NOT_WELL_FORMED, qor::POLICY_NOT_WELL_FORMED},
        {qor::ERROR_NOT_STORED, qor::POLICY_NOT_STORED},
        {qor::ERROR_TOO_LARGE, qor::POLICY_TOO_LARGE},
        {qor::ERROR_STATE_UNKNOWN, qor::POLICY_STATE_UNKNOWN},
        {qor::ERROR_NOT_PERMITTED, qor::POLICY_NOT_PERMITTED},
        {qor::ERROR_CHANGED, CHANGED}};
    const auto found = RESULTS.find(errorName);
    return found == RESULTS.end() ? std::nullopt : std::optional<int>(found->second);
}

int ReportAnswer(const TSOptions& options, const qor::TSMethodResult& answer, TSOutcome outcome,
                 const std::string& what)
{
    if (IsGood(answer.m_send) &&
        g_variant_is_of_type(answer.m_pBody.get(), G_VARIANT_TYPE("(a{sv})")))
    {
        const TJson told = ToJson(answer.m_pBody.get()).at(0);
        outcome.m_sha256 = Text(told, "sha256");
        const TJson size = Part(told, "size");
        outcome.m_size = size.is_number() ? size.get<std::uint64_t>() : outcome.m_size;
        outcome.m_heard = options.m_waitSeconds == 0 ? TJson() : told;
        return Report(options, outcome, what);
    }
    if (IsGood(answer.m_send))
    {
        SayError(WhyNot(answer.m_send));
        return tools::EXIT_BAD_ANSWER;
    }
    if (const auto result = ResultOf(answer.m_errorName))
    {
        outcome.m_result = *result;
        outcome.m_words = *result == qor::POLICY_NOT_PERMITTED ? "" : ErrorWords(answer);
        return Report(options, outcome, what);
    }
    if (const std::string words = ReadRefusal(answer.m_errorName, options.m_number); !words.empty())
    {
        SayError(words);
        return tools::EXIT_REFUSED;
    }
    return SayNotDelivered(answer.m_send, what);
}

// @param pWhat  the policy, or its number
int Call(const TSOptions& options, const char* method, GVariant* pWhat, const TSOutcome& outcome,
         const std::string& what)
{
    const unsigned int wait = options.m_waitSeconds == 0 ? 0 : SecondsToWait(options);
    AllowToEnd(std::chrono::seconds(1));
    const std::chrono::milliseconds patience = std::chrono::seconds(wait) + ANSWER_TIME;
    const auto answer = Endpoint(options)->CallMethod(
        qor::POLICY_INTERFACE, method,
        g_variant_new("(@*@a{sv})", pWhat, CallOptions(options, wait)),
        MillisecondsLeft(patience) + (wait == 0 ? 0 : 500), {});
    return ReportAnswer(options, answer, outcome, what);
}

} // namespace

int SetPolicy(const TSOptions& options)
{
    const std::string what = "the policy";
    std::string text;
    std::string error;
    if (!ReadPolicyText(options.m_policyFile, text, error))
    {
        SayError(error);
        return tools::EXIT_WRONG_USAGE;
    }
    if (options.m_isChecked && !IsWellFormed(options, text))
    {
        return tools::EXIT_REFUSED;
    }
    if (options.m_waitSeconds == 0 && !options.m_ifMatch)
    {
        return Send(options, text, what);
    }
    if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE)
    {
        SayError("the policy is not UTF-8: with --wait and --if-match only text can be sent");
        return tools::EXIT_WRONG_USAGE;
    }
    return Call(options, "SetPolicy", g_variant_new_string(text.c_str()),
                {qor::POLICY_STORED, "", tools::Sha256(text), text.size(), TJson()}, what);
}

int Restore(const TSOptions& options)
{
    return Call(options, "Restore", g_variant_new_uint64(options.m_number), {},
                PolicyName(options.m_number));
}

} // namespace qorctl
