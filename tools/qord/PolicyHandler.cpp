// Answers the requests that carry a new policy.
#include "qord/PolicyHandler.h"

#include <utility>

#include <qor/PolicyResult.h>

#include "qord/PolicyRequest.h"
#include "qord/PolicyXml.h"
#include "qord/Report.h"

namespace qord
{

TCPolicyHandler::TCPolicyHandler(TCPolicyStore store, std::size_t maxPolicySize)
    : m_store(std::move(store)), m_maxPolicySize(maxPolicySize)
{
}

bool TCPolicyHandler::Handle(const qor::TByteArray& request, qor::TByteArray& reply,
                             int& result) const
{
    if (!m_Decide(request, result))
    {
        return false;
    }
    EncodePolicyResult(result, reply);
    return true;
}

bool TCPolicyHandler::m_Decide(const qor::TByteArray& request, int& result) const
{
    // From the size alone: what is too large is not copied.
    if (PolicySize(request) > m_maxPolicySize)
    {
        result = m_RefuseSize(PolicySize(request));
        return true;
    }
    std::string policy;
    std::string error;
    if (!DecodePolicyRequest(request, policy, error))
    {
        ReportError("a request of %zu bytes is not a policy: %s", request.size(), error.c_str());
        return false;
    }
    result = m_CheckAndStore(policy);
    return true;
}

int TCPolicyHandler::m_RefuseSize(std::size_t size) const
{
    ReportError("a policy of %zu bytes is too large: at most %zu are accepted", size,
                m_maxPolicySize);
    return qor::POLICY_TOO_LARGE;
}

int TCPolicyHandler::m_CheckAndStore(const std::string& policy) const
{
    if (policy.size() > m_maxPolicySize)
    {
        return m_RefuseSize(policy.size());
    }
    std::string error;
    if (!IsWellFormedPolicy(policy, error))
    {
        ReportError("a policy of %zu bytes is not well-formed: %s", policy.size(), error.c_str());
        return qor::POLICY_NOT_WELL_FORMED;
    }
    if (!m_store.Store(policy, error))
    {
        ReportError("a policy of %zu bytes could not be stored: %s", policy.size(), error.c_str());
        return qor::POLICY_NOT_STORED;
    }
    Report("a policy of %zu bytes is stored", policy.size());
    return qor::POLICY_STORED;
}

} // namespace qord
