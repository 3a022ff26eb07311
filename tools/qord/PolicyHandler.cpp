// Answers the requests that carry a new policy.
#include "qord/PolicyHandler.h"

#include <utility>

#include "common/PolicyXml.h"
#include "qord/Report.h"

namespace qord
{

TCPolicyHandler::TCPolicyHandler(TCPolicyStore store, std::size_t maxPolicySize)
    : m_store(std::move(store)), m_maxPolicySize(maxPolicySize)
{
}

void TCPolicyHandler::Open()
{
    std::string error = m_store.Open();
    if (!error.empty())
    {
        ReportError("nothing can be stored at the moment: %s", error.c_str());
    }
    std::string policy;
    error.clear();
    if (m_store.Read(policy, m_maxPolicySize, error))
    {
        tools::CheckPolicyXml(policy, error, tools::POLICY_CHECK_MEMORY);
    }
    if (!error.empty())
    {
        ReportError("the policy in force is no good: %s", error.c_str());
    }
}

bool TCPolicyHandler::Handle(const qor::TByteArray& request, qor::TByteArray& reply,
                             int& result) const
{
    if (!m_Decide(request, result))
    {
        return false;
    }
    qor::WritePolicyReply(result, reply);
    return true;
}

bool TCPolicyHandler::m_Decide(const qor::TByteArray& request, int& result) const
{
    std::string_view policy;
    std::string error;
    switch (qor::ReadPolicyRequest(request, policy, error, m_maxPolicySize))
    {
    case qor::EPolicyRequest::GOOD:
        result = m_CheckAndStore(policy);
        return true;
    case qor::EPolicyRequest::TOO_LARGE:
        ReportError("a policy is too large: %s", error.c_str());
        result = qor::POLICY_TOO_LARGE;
        return true;
    case qor::EPolicyRequest::NOT_A_POLICY:
        break;
    }
    ReportError("a request of %zu bytes is not a policy: %s", request.size(), error.c_str());
    return false;
}

int TCPolicyHandler::m_CheckAndStore(std::string_view policy) const
{
    std::string error;
    const qor::EPolicyResult verdict =
        tools::CheckPolicyXml(policy, error, tools::POLICY_CHECK_MEMORY);
    if (verdict != qor::POLICY_STORED)
    {
        ReportError("a policy of %zu bytes is %s: %s", policy.size(),
                    verdict == qor::POLICY_NOT_WELL_FORMED ? "not well-formed" : "not checked",
                    error.c_str());
        return verdict;
    }
    const qor::EPolicyResult result = m_store.Store(policy, error);
    switch (result)
    {
    case qor::POLICY_STORED:
        Report("a policy of %zu bytes is stored", policy.size());
        break;
    case qor::POLICY_STATE_UNKNOWN:
        ReportError("a policy of %zu bytes may be in force, or the one before it: %s",
                    policy.size(), error.c_str());
        return result;
    default:
        ReportError("a policy of %zu bytes could not be stored: %s", policy.size(), error.c_str());
        return result;
    }
    if (!error.empty())
    {
        ReportError("cleaning up, which the next policy tries again: %s", error.c_str());
    }
    return result;
}

} // namespace qord
