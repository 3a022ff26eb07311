// What an application can ask of the service, with reasons and without waiting.
#ifndef QOR_IPOLICYCONTROL_H
#define QOR_IPOLICYCONTROL_H

#include <cstdint>
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
    /// that cannot be read, one of a newer archive format, say: the text says why.
    TSSendResult m_send;

    /// The service's result code where the message was ANSWERED_TRUE; otherwise -1. The codes of
    /// the reference service are in qor/PolicyMessage.h.
    int m_result = -1;
};

/// Takes the result of an asynchronous SetPolicy. It must not throw.
using TPolicyCallback = std::function<void(const TSPolicyResult&)>;

/// A policy that the service keeps.
struct TSPolicyText
{
    /// ANSWERED_TRUE where the policy has come. FAILED also where the service refuses, or does not
    /// speak com.norvane.qor.Policy1: the error's name says which.
    TSSendResult m_send;

    std::string m_errorName; ///< One of qor/PolicyInterface.h or of D-Bus; empty without an answer.
    std::string m_policy;    ///< Byte by byte, in whatever encoding it has.
};

/// Takes the result of an asynchronous GetPolicy. It must not throw.
using TPolicyTextCallback = std::function<void(const TSPolicyText&)>;

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

    /// Fetches a policy from the service, wherever that keeps it, and waits for the answer, without
    /// a main context. A function that is told of a new policy may call it.
    ///
    /// @param number  0: the policy in force; else that of a policy which is kept
    virtual TSPolicyText GetPolicy(std::uint64_t number, int timeoutMs,
                                   const TCCancellation& cancellation) = 0;

    /// The same, and returns at once, as SetPolicyAsync.
    virtual void GetPolicyAsync(std::uint64_t number, int timeoutMs,
                                const TCCancellation& cancellation,
                                const TPolicyTextCallback& onDone, GMainContext* pContext) = 0;
};

} // namespace qor

#endif
