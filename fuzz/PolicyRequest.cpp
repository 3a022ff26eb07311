// Reading of policy requests.
#include <string>

#include <qor/PolicyMessage.h>

#include "FuzzTarget.h"

using qor::EPolicyRequest;

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size)
{
    constexpr std::size_t limit = 4096;
    const qor::TByteArray request = qorfuzz::Bytes(pData, size);
    std::string_view policy;
    std::string error;
    const EPolicyRequest found = qor::ReadPolicyRequest(request, policy, error, limit);
    if (found != EPolicyRequest::GOOD)
    {
        qorfuzz::Require(policy.empty() && !error.empty(), "a refusal has a reason and no policy");
        const EPolicyRequest without =
            found == EPolicyRequest::TOO_LARGE ? EPolicyRequest::GOOD : found;
        qorfuzz::Require(qor::ReadPolicyRequest(request, policy, error) == without,
                         "without a limit only what was too large is good");
        return 0;
    }
    qorfuzz::Require(policy.size() <= limit, "a policy is within the limit");
    qor::TByteArray written;
    qor::WritePolicyRequest(std::string(policy), written);
    std::string_view policyAgain;
    qorfuzz::Require(qor::ReadPolicyRequest(written, policyAgain, error) == EPolicyRequest::GOOD &&
                         policyAgain == policy,
                     "a policy that was read is written and read again as the same");
    return 0;
}
