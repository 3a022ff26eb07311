// The check that a policy is well-formed.
#include <string>

#include "FuzzTarget.h"
#include "common/PolicyXml.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(pData), size);
    constexpr std::size_t memory = 1 << 20;
    std::string error;
    const bool isGood = tools::CheckPolicyXml(text, error, memory) == qor::POLICY_STORED;
    qorfuzz::Require(isGood == error.empty(), "a refusal has a reason");
    if (isGood)
    {
        qorfuzz::Require(tools::CheckPolicyXml(text + "<more/>", error, memory) ==
                             qor::POLICY_NOT_WELL_FORMED,
                         "two documents are not one");
        qorfuzz::Require(tools::CheckPolicyXml(text + '\0', error, memory) ==
                             qor::POLICY_NOT_WELL_FORMED,
                         "a zero byte is not part of a document");
    }
    return 0;
}
