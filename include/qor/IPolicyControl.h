// What an application can ask of the service, with reasons and without waiting.
#ifndef QOR_IPOLICYCONTROL_H
#define QOR_IPOLICYCONTROL_H

#include <functional>
#include <string>

#include <qor/Export.h>
#include <qor/GlibTypes.h>
#include <qor/SendResult.h>

namespace qor
{

/// What became of a policy.
struct TSPolicyResult
{
    /// What became of the message. FAILED with the code of G_IO_ERROR_INVALID_DATA is an answer
    /// that cannot be read, of a process with another word size, say: the text says why.
    TSSendResult m_send;

    /// The service's result code where the message was ANSWERED_TRUE; otherwise -1. The codes of
    /// the reference service are in qor/PolicyMessage.h.
    int m_result = -1;
};

/// Takes the result of an asynchronous SetPolicy. It must not throw.
using TPolicyCallback = std::function<void(const TSPolicyResult&)>;

/// The policy's control object of the process; see qor::api::GetPolicyControl. Any thread may call
/// it, concurrently too.
class QOR_API IPolicyControl
{
public:
    virtual ~IPolicyControl();

    /// Hands the service a new policy and waits for its answer, without a main context. Never
    /// throws for what the service, or whoever is in its place, has answered.
    ///
    /// @param policy        the policy text, taken byte by byte; may be empty
    /// @param timeoutMs     as in IDbusClient::Call: in milliseconds, a negative one is 10000
    /// @param cancellation  ends the wait; {} where nobody will. A policy that the service has
    ///                      received by then may come into force all the same.
    virtual TSPolicyResult SetPolicy(const std::string& policy, int timeoutMs,
                                     const TCCancellation& cancellation) = 0;

    /// Hands the service a new policy and returns at once. See IDbusClient::CallAsync for when and
    /// where onDone runs; the endpoint lives at least as long as this object.
    ///
    /// @param onDone    called once with the result, out of the main context
    /// @param pContext  where; null for the process's default context
    virtual void SetPolicyAsync(const std::string& policy, int timeoutMs,
                                const TCCancellation& cancellation, const TPolicyCallback& onDone,
                                GMainContext* pContext) = 0;
};

} // namespace qor

#endif
