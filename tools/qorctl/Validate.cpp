// qorctl validate: the service's judgement of a policy, without a service.
#include <cstdio>

#include "common/ExitStatus.h"
#include "common/PolicyXml.h"
#include "qorctl/Commands.h"
#include "qorctl/Json.h"
#include "qorctl/Message.h"
#include "qorctl/PolicyText.h"

namespace qorctl
{

bool IsWellFormed(const std::string& file, const std::string& text)
{
    std::string error;
    tools::TSXmlPlace place;
    if (tools::CheckPolicyXml(text, error, tools::POLICY_CHECK_MEMORY, &place) !=
        qor::POLICY_NOT_WELL_FORMED)
    {
        return true;
    }
    SayError(PolicyName(file) + " is not well-formed XML, " + error);
    std::fputs(ShowPlace(text, place).c_str(), stderr);
    return false;
}

int Validate(const TSOptions& options)
{
    std::string text;
    std::string error;
    if (!ReadPolicyText(options.m_policyFile, text, error))
    {
        SayError(error);
        return tools::EXIT_WRONG_USAGE;
    }
    tools::TSXmlPlace place;
    const int verdict =
        text.size() > tools::MAX_POLICY_SIZE
            ? qor::POLICY_TOO_LARGE
            : tools::CheckPolicyXml(text, error, tools::POLICY_CHECK_MEMORY, &place);
    const bool isGood = verdict == qor::POLICY_STORED;
    if (verdict == qor::POLICY_TOO_LARGE)
    {
        place.m_reason = error.empty() ? "it has more than 16 MiB" : error;
        SayError(PolicyName(options.m_policyFile) +
                 " is too large for a service with the usual limits: " + place.m_reason);
    }
    else if (!isGood)
    {
        IsWellFormed(options.m_policyFile, text);
    }
    if (options.m_json)
    {
        TJson result = {{"file", options.m_policyFile}, {"valid", isGood}, {"bytes", text.size()}};
        if (!isGood)
        {
            result["line"] = place.m_line;
            result["column"] = place.m_column;
            result["reason"] = place.m_reason;
        }
        PrintJson(result);
    }
    else if (isGood)
    {
        Say(options.m_quiet, PolicyName(options.m_policyFile) + " is well-formed (" +
                                 std::to_string(text.size()) + " bytes).");
    }
    return isGood ? tools::EXIT_OK : tools::EXIT_REFUSED;
}

} // namespace qorctl
