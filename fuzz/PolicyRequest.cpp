// Decoding of policy requests.
#include <sstream>
#include <string>

#include "FuzzTarget.h"
#include "QORPolicyMessage.h"
#include "qord/PolicyRequest.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size)
{
    const qor::TByteArray request = qorfuzz::Bytes(pData, size);
    std::string policy;
    std::string error;
    if (!qord::DecodePolicyRequest(request, policy, error))
    {
        qorfuzz::Require(policy.empty() && !error.empty(), "a refusal has a reason and no policy");
        return 0;
    }
    const std::size_t expected = qord::PolicySize(request);
    qorfuzz::Require(policy.size() == expected || policy.size() == expected + 1,
                     "the size is known before the policy is read");
    qor::TByteArray written;
    qor::WritePolicyRequest(policy, written);
    std::string policyAgain;
    qorfuzz::Require(qord::DecodePolicyRequest(written, policyAgain, error) &&
                         policyAgain == policy,
                     "a policy that was read is written and read again as the same");
    return 0;
}
