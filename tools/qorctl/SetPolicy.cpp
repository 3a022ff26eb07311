// qorctl set-policy: hands the service a new policy and puts the outcome into words.
#include <unistd.h>

#include <gio/gio.h>

#include <qor/PolicyMessage.h>
#include <qor/api.h>

#include "common/ExitStatus.h"
#include "common/Text.h"
#include "qorctl/Commands.h"
#include "qorctl/Hearing.h"
#include "qorctl/Message.h"
#include "qorctl/PolicyText.h"
#include "qorctl/ServiceCall.h"
#include "qorctl/StatusWords.h"

namespace qorctl
{
namespace
{

// As far as the service tells.
std::string WhoMay(const TSOptions& options)
{
    qor::TSSendResult result;
    const std::string who = MayChange(AskStatus(options, result));
    return who.empty() ? "" : "; these may: " + who;
}

std::string Words(const TSOptions& options, int result, std::size_t size)
{
    switch (result)
    {
    case qor::POLICY_NOT_WELL_FORMED:
        return "it is not well-formed XML; qorctl validate shows where";
    case qor::POLICY_NOT_STORED:
        return "it could not store it; its log says why";
    case qor::POLICY_TOO_LARGE:
        return "its " + std::to_string(size) +
               " bytes, or the depth of its elements, are more than the service accepts";
    case qor::POLICY_STATE_UNKNOWN:
        return "its disk failed half-way, and which policy is in force is not known; "
               "set it again, or look with qorctl get-policy";
    case qor::POLICY_NOT_PERMITTED:
        return tools::UserName(geteuid()) + " may not change the policy" + WhoMay(options);
    default:
        return "result code " + std::to_string(result);
    }
}

int Report(const TSOptions& options, int result, const std::string& text, const std::string& what)
{
    const bool isStored = result == qor::POLICY_STORED;
    int exitStatus = isStored ? tools::EXIT_OK : tools::EXIT_REFUSED;
    const std::string words =
        isStored
            ? "The service has stored " + what + " (" + std::to_string(text.size()) + " bytes)."
            : "the service refused " + what + ": " + Words(options, result, text.size());
    TJson told = {{"stored", isStored},
                  {"result", result},
                  {"bytes", text.size()},
                  {"sha256", tools::Sha256(text)},
                  {"message", words}};
    if (!isStored)
    {
        SayError(words);
    }
    else
    {
        Say(options.m_quiet || options.m_json, words);
        exitStatus = options.m_waitSeconds == 0 ? exitStatus : WaitUntilHeard(options, told);
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

} // namespace

int SendPolicy(const TSOptions& options, const std::string& text, const std::string& what)
{
    const auto endpoint = Endpoint(options); // the control object shares it
    const auto result = qor::api::GetPolicyControl()->SetPolicy(text, MillisecondsLeft(), {});
    const qor::TSSendResult& sent = result.m_send;
    if (IsGood(sent))
    {
        return Report(options, result.m_result, text, what);
    }
    if (sent.m_status == qor::ESendStatus::FAILED && sent.m_code == G_IO_ERROR_INVALID_DATA)
    {
        SayError("the service sent something else than an answer: " + sent.m_text);
        return tools::EXIT_BAD_ANSWER;
    }
    SayError(
        what + " was not delivered: " + WhyNot(sent) +
        (MayComeIntoForce(sent) ? "; the request may still take effect, qorctl status tells" : ""));
    return tools::EXIT_NOT_DELIVERED;
}

int SetPolicy(const TSOptions& options)
{
    std::string text;
    std::string error;
    if (!ReadPolicyText(options.m_policyFile, text, error))
    {
        SayError(error);
        return tools::EXIT_WRONG_USAGE;
    }
    if (options.m_isChecked && !IsWellFormed(options.m_policyFile, text))
    {
        return tools::EXIT_REFUSED;
    }
    return SendPolicy(options, text, "the policy");
}

} // namespace qorctl
