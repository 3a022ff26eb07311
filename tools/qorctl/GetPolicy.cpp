// qorctl get-policy and restore: the policy in force, and kept ones.
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include <qor/PolicyMessage.h>

#include "common/ExitStatus.h"
#include "common/Output.h"
#include "common/ServiceMessage.h"
#include "common/Text.h"
#include "qorctl/Commands.h"
#include "qorctl/Message.h"
#include "qorctl/OutputFile.h"
#include "qorctl/ServiceCall.h"

namespace qorctl
{
namespace
{

std::string Name(int number)
{
    return number == 0 ? "the policy in force" : "policy " + std::to_string(number);
}

std::string Refusal(int result, int number)
{
    switch (result)
    {
    case tools::NO_SUCH_POLICY:
        return number == 0 ? "the service has no policy yet"
                           : "there is no policy " + std::to_string(number) +
                                 "; qorctl history lists those that are kept";
    case tools::POLICY_NOT_READ:
        return "the service cannot read " + Name(number) + "; its log says why";
    case qor::POLICY_NOT_PERMITTED:
        return "the service refused: " + tools::UserName(geteuid()) + " may not read policies";
    default:
        return "the service refused: result code " + std::to_string(result);
    }
}

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

int FetchPolicy(const TSOptions& options, std::string& policy)
{
    qor::TByteArray request;
    tools::WriteGetPolicyRequest(options.m_number, request);
    const auto answer = Endpoint(options)->Call(tools::GET_POLICY, request, MillisecondsLeft(), {});
    if (!IsGood(answer))
    {
        SayError("there is no answer: " + WhyNot(answer));
        return tools::EXIT_NOT_DELIVERED;
    }
    int result = 0;
    if (!tools::ReadGetPolicyReply(answer.m_response, result, policy))
    {
        SayError(WhyNot(answer));
        return tools::EXIT_BAD_ANSWER;
    }
    if (result != tools::POLICY_SENT)
    {
        SayError(Refusal(result, options.m_number));
        return tools::EXIT_REFUSED;
    }
    return tools::EXIT_OK;
}

int GetPolicy(const TSOptions& options)
{
    std::string policy;
    if (const int exitStatus = FetchPolicy(options, policy); exitStatus != tools::EXIT_OK)
    {
        return exitStatus;
    }
    if (!options.m_outputFile.empty())
    {
        return Write(options.m_outputFile, policy) ? tools::EXIT_OK : tools::EXIT_NO_OUTPUT;
    }
    if (options.m_json)
    {
        PrintJson({{"number", options.m_number},
                   {"bytes", policy.size()},
                   {"sha256", tools::Sha256(policy)},
                   {"policy", policy}});
        return tools::EXIT_OK;
    }
    tools::Print(policy);
    return tools::EXIT_OK;
}

int Restore(const TSOptions& options)
{
    std::string policy;
    const int exitStatus = FetchPolicy(options, policy);
    return exitStatus == tools::EXIT_OK ? SendPolicy(options, policy, Name(options.m_number))
                                        : exitStatus;
}

} // namespace qorctl
