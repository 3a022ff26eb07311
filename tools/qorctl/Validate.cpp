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

namespace
{

void PrintVerdict(const TSOptions& options, std::size_t size, const tools::TSXmlPlace* pPlace)
{
    TJson result = {{"file", options.m_policyFile}, {"valid", pPlace == nullptr}, {"bytes", size}};
    if (pPlace != nullptr)
    {
        result["line"] = pPlace->m_line;
        result["column"] = pPlace->m_column;
        result["reason"] = pPlace->m_reason;
    }
    PrintJson(result);
}

} // namespace

bool IsWellFormed(const TSOptions& options, const std::string& text)
{
    std::string error;
    tools::TSXmlPlace place;
    if (tools::CheckPolicyXml(text, error, tools::POLICY_CHECK_MEMORY, &place) !=
        qor::POLICY_NOT_WELL_FORMED)
    {
        return true;
    }
    SayError(PolicyName(options.m_policyFile) + " is not well-formed XML, " + error);
    std::fputs(ShowPlace(text, place).c_str(), stderr);
    if (options.m_json)
    {
        PrintVerdict(options, text.size(), &place);
    }
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
    const int verdict = text.size() > tools::MAX_POLICY_SIZE
                            ? qor::POLICY_TOO_LARGE
                            : tools::CheckPolicyXml(text, error, tools::POLICY_CHECK_MEMORY);
    if (verdict == qor::POLICY_NOT_WELL_FORMED)
    {
        IsWellFormed(options, text);
        return tools::EXIT_REFUSED;
    }
    const bool isGood = verdict == qor::POLICY_STORED;
    const tools::TSXmlPlace nowhere = {0, 0, error.empty() ? "it has more than 16 MiB" : error};
    if (!isGood)
    {
        SayError(PolicyName(options.m_policyFile) +
                 " is too large for a service with the usual limits: " + nowhere.m_reason);
    }
    if (options.m_json)
    {
        PrintVerdict(options, text.size(), isGood ? nullptr : &nowhere);
    }
    else if (isGood)
    {
        Say(options.m_quiet, PolicyName(options.m_policyFile) + " is well-formed (" +
                                 std::to_string(text.size()) + " bytes).");
    }
    return isGood ? tools::EXIT_OK : tools::EXIT_REFUSED;
}

} // namespace qorctl
