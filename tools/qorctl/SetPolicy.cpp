// qorctl set-policy: hands the service a new policy and puts the outcome into words.
#include <unistd.h>

#include <chrono>

#include <boost/archive/archive_exception.hpp>

#include <qor/PolicyMessage.h>
#include <qor/QORDbusClient.h>
#include <qor/api.h>

#include "common/ExitStatus.h"
#include "common/Text.h"
#include "qorctl/Await.h"
#include "qorctl/Commands.h"
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
    std::string error;
    const std::string who = MayChange(AskStatus(options, error).value_or(TJson()));
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
    const std::string words =
        isStored
            ? "The service has stored " + what + " (" + std::to_string(text.size()) + " bytes)."
            : "the service refused " + what + ": " + Words(options, result, text.size());
    if (!isStored)
    {
        SayError(words);
    }
    if (options.m_json)
    {
        PrintJson({{"stored", isStored},
                   {"result", result},
                   {"bytes", text.size()},
                   {"sha256", tools::Sha256(text)},
                   {"message", words}});
    }
    else if (isStored)
    {
        Say(options.m_quiet, words);
    }
    return isStored ? tools::EXIT_OK : tools::EXIT_REFUSED;
}

// -1 also where the library is shutting down.
int Send(bool testNames, const std::string& text)
{
    // The first endpoint of the process decides on the names; the control object shares it.
    const auto endpoint = qor::TCDbusClientProvider::Get(testNames);
    const auto control = qor::api::GetControl();
    return control ? control->SetPolicy(text) : -1;
}

} // namespace

int SendPolicy(const TSOptions& options, const std::string& text, const std::string& what)
try
{
    const auto start = std::chrono::steady_clock::now();
    const auto result = Await(WaitLimit(options), [testNames = options.m_testNames, text]
                              { return Send(testNames, text); });
    if (result && *result != -1)
    {
        return Report(options, *result, text, what);
    }
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    const bool isLate = !result || took >= LIBRARY_LIMIT;
    SayError(what + " was not delivered: " + WhyNotAnswered(options, took) +
             (isLate ? "; the request may still take effect, qorctl status tells" : ""));
    return tools::EXIT_NOT_DELIVERED;
}
catch (const boost::archive::archive_exception& exception)
{
    SayError(std::string("the service's answer cannot be read: ") + exception.what());
    return tools::EXIT_BAD_ANSWER;
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
