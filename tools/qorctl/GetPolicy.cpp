// qorctl get-policy: the policy in force, and kept ones.
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include <gio/gio.h>

#include <qor/PolicyInterface.h>
#include <qor/api.h>

#include "common/ExitStatus.h"
#include "common/Output.h"
#include "common/Text.h"
#include "qorctl/Commands.h"
#include "qorctl/Json.h"
#include "qorctl/Message.h"
#include "qorctl/OutputFile.h"
#include "qorctl/ServiceCall.h"

namespace qorctl
{
namespace
{

bool Write(const std::string& file, const std::string& text)
{
    if (WriteOutputFile(file, text))
    {
        return true;
    }
    SayError(tools::Printable(file) + ": " + std::generic_category().message(errno));
    return false;
}

} // namespace

std::string PolicyName(std::uint64_t number)
{
    return number == 0 ? "the policy in force" : "policy " + std::to_string(number);
}

std::string ReadRefusal(const std::string& errorName, std::uint64_t number)
{
    if (errorName == qor::ERROR_NO_SUCH_POLICY)
    {
        return number == 0 ? "the service has no policy yet"
                           : "there is no policy " + std::to_string(number) +
                                 "; qorctl history lists those that are kept";
    }
    if (errorName == qor::ERROR_NOT_READ)
    {
        return "the service cannot read " + PolicyName(number) + "; its log says why";
    }
    return errorName == qor::ERROR_NOT_PERMITTED
               ? "the service refused: " + tools::UserName(geteuid()) + " may not read policies"
               : "";
}

int SayNotRead(const qor::TSSendResult& result, const std::string& errorName, std::uint64_t number)
{
    const std::string words = ReadRefusal(errorName, number);
    SayError(words.empty() ? "there is no answer: " + WhyNot(result) : words);
    if (!words.empty())
    {
        return tools::EXIT_REFUSED;
    }
    const bool isBad = IsGood(result) || result.m_code == G_IO_ERROR_INVALID_DATA;
    return isBad ? tools::EXIT_BAD_ANSWER : tools::EXIT_NOT_DELIVERED;
}

int FetchPolicy(const TSOptions& options, std::uint64_t number, std::string& policy)
{
    const auto endpoint = Endpoint(options); // the control object shares it
    auto answer = qor::api::GetPolicyControl()->GetPolicy(number, MillisecondsLeft(), {});
    if (!IsGood(answer.m_send))
    {
        return SayNotRead(answer.m_send, answer.m_errorName, number);
    }
    policy.swap(answer.m_policy);
    return tools::EXIT_OK;
}

int GetPolicy(const TSOptions& options)
{
    std::string policy;
    if (const int exitStatus = FetchPolicy(options, options.m_number, policy);
        exitStatus != tools::EXIT_OK)
    {
        return exitStatus;
    }
    const bool isFile = !options.m_outputFile.empty();
    if (isFile && !Write(options.m_outputFile, policy))
    {
        return tools::EXIT_NO_OUTPUT;
    }
    if (options.m_json)
    {
        PrintJson({{"number", options.m_number},
                   {"bytes", policy.size()},
                   {"sha256", tools::Sha256(policy)},
                   {isFile ? "file" : "policy", isFile ? options.m_outputFile : policy}});
    }
    else if (!isFile)
    {
        tools::Print(policy);
    }
    return tools::EXIT_OK;
}

} // namespace qorctl
