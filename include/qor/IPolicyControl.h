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

/// The outcome of setting a policy.
struct TSPolicyResult
{
    /// The outcome of the message. FAILED with the code of G_IO_ERROR_INVALID_DATA means that the
    /// answer cannot be read, for example because of a newer archive format: the text says why.
    TSSendResult m_send;

    /// The service's result code if the message was ANSWERED_TRUE; otherwise -1. The codes of
    /// the reference service are in qor/PolicyMessage.h.
    int m_result = -1;
};

/// Takes the result of an asynchronous SetPolicy. It must not throw.
using TPolicyCallback = std::function<void(const TSPolicyResult&)>;

/// A policy that the service keeps.
struct TSPolicyText
{
    /// ANSWERED_TRUE if the policy has arrived. FAILED also if the service refuses, or does not
    /// have the interface com.norvane.qor.Policy1: the error's name says which.
    TSSendResult m_send;

    std::string m_errorName; ///< One of qor/PolicyInterface.h or of D-Bus; empty without an answer.
    std::string m_policy;    ///< Byte by byte, in whatever encoding it has.
};

/// Takes the result of an asynchronous GetPolicy. It must not throw.
using TPolicyTextCallback = std::function<void(const TSPolicyText&)>;

/// The policy control object of the process; see qor::api::GetPolicyControl. Several threads may
/// call it at the same time.
class QOR_API IPolicyControl
{
public:
    virtual ~IPolicyControl();

    /// Hands the service a new policy and waits for its answer, without a main context. Never
    /// throws because of an answer, whatever bytes that contains.
    ///
    /// @param policy        the policy text, taken byte by byte; may be empty
    /// @param timeoutMs     as in IDbusClient::Call: in milliseconds; negative: 10000
    /// @param cancellation  ends the wait; {} if nobody will cancel. If the service has received
    /// the
    ///                      policy by then, it may still come into force.
    virtual TSPolicyResult SetPolicy(const std::string& policy, int timeoutMs,
                                     const TCCancellation& cancellation) = 0;

    /// Hands the service a new policy and returns at once. See IDbusClient::CallAsync for when and
    /// where onDone runs; the endpoint lives at least as long as this object.
    ///
    /// @param onDone    called once with the result, in the main context
    /// @param pContext  the main context; null for the process's default context
    virtual void SetPolicyAsync(const std::string& policy, int timeoutMs,
                                const TCCancellation& cancellation, const TPolicyCallback& onDone,
                                GMainContext* pContext) = 0;

    /// Fetches a policy from the service and waits for the answer, without a main context. A
    /// function that hears of a new policy may call it.
    ///
    /// @param number  0: the policy in force; else the number of an earlier policy that is kept
    virtual TSPolicyText GetPolicy(std::uint64_t number, int timeoutMs,
                                   const TCCancellation& cancellation) = 0;

    /// Like GetPolicy, but returns at once, as SetPolicyAsync does.
    virtual void GetPolicyAsync(std::uint64_t number, int timeoutMs,
                                const TCCancellation& cancellation,
                                const TPolicyTextCallback& onDone, GMainContext* pContext) = 0;
};

} // namespace qor

#endif
