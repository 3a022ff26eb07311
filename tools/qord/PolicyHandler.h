// Answers the requests that carry a new policy.
#ifndef QORD_POLICYHANDLER_H
#define QORD_POLICYHANDLER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include <qor/IDbusService.h>
#include <qor/PolicyMessage.h>
#include <qor/Types.h>

#include "qord/Permission.h"
#include "qord/PolicyHistory.h"
#include "qord/PolicyStore.h"
#include "qord/RefusalLog.h"
#include "qord/Sender.h"
#include "qord/UserDatabase.h"

namespace qord
{

/// The sender of a request.
struct TSAsker
{
    qor::TSPeer m_peer;
    EPermission m_permission = EPermission::REFUSED; ///< To change the policy.
};

/// The result of setting a policy.
struct TSVerdict
{
    /// One of qor::EPolicyResult, or POLICY_CHANGED.
    int m_result = qor::POLICY_NOT_STORED;
    std::string m_words;  ///< The reason for the sender; empty if the policy is in force.
    std::string m_sha256; ///< The policy's.
};

/// The result where another policy is in force than the sender has said. The channel cannot ask for
/// that, so it never answers so.
constexpr int POLICY_CHANGED = 6;

/// Reads a request, checks the policy and stores it; reports result and sender in one line. Takes
/// at most a small multiple of the request's memory, whatever its bytes are, and none for a policy
/// over the limit.
class TCPolicyHandler
{
public:
    TCPolicyHandler(TCPolicyStore store, std::size_t maxPolicySize, TCUserDatabase& users);

    /// Prepares the policy's place and reports what is wrong with it, or with the stored policy.
    ///
    /// @throws std::runtime_error if no policy can ever be stored
    void Open();

    /// Reports a policy that another program has written into the file, and what is wrong with it.
    void LookAtForeignPolicy();

    /// @return false for a request that is not a policy; else the answer, one of
    ///         qor::EPolicyResult, is in reply and result
    bool Handle(const qor::TByteArray& request, const TSAsker& asker, qor::TByteArray& reply,
                int& result);

    /// The same for a text that has not come over the channel.
    ///
    /// @param ifMatch  if set, the SHA-256 that the policy in force must have; an empty text means
    ///                 that there must be no policy
    TSVerdict Set(std::string_view policy, const TSAsker& asker,
                  const std::optional<std::string>& ifMatch);

    /// The hash of the policy in force; empty if there is no policy.
    std::string HashInForce();

    /// Whether the policy in force, of that hash, is well-formed. It is read and checked where its
    /// text has not been found good before, also by a service before this one.
    bool IsGood(const std::string& sha256);

    /// Whether there was a policy since the start that could be read.
    bool HasSeenPolicy() const
    {
        return m_hasSeenPolicy;
    }

    /// Why the last policy could not be stored; empty if it was.
    const std::string& WhyNotStored() const
    {
        return m_notStored;
    }

    /// Since the start.
    std::uint64_t NumberOfStored() const
    {
        return m_stored;
    }
    std::uint64_t NumberOfRefused() const
    {
        return m_refused;
    }
    std::size_t MaxPolicySize() const
    {
        return m_maxPolicySize;
    }

    const TCPolicyStore& Store() const
    {
        return m_store;
    }
    TCPolicyHistory& History()
    {
        return m_history;
    }

    /// For the lines about other refusals.
    TCRefusalLog& Refusals()
    {
        return m_refusals;
    }

private:
    class TCAttempt;

    std::string m_CheckInForce();
    bool m_IsKnownGood(const std::string& sha256) const;
    qor::EPolicyResult m_Check(std::string_view policy, const std::string& sha256,
                               std::string& error);
    int m_Decide(const TCAttempt& attempt, const std::optional<std::string>& ifMatch);
    int m_CheckAndStore(const TCAttempt& attempt);
    int m_Store(const TCAttempt& attempt);

    TCPolicyStore m_store;
    TCPolicyHistory m_history;
    std::size_t m_maxPolicySize;
    TCUserDatabase& m_users;
    TCRefusalLog m_refusals;
    std::deque<std::string> m_good; ///< Hashes of texts that were found good; the latest ones.
    bool m_hasSeenPolicy = false;
    std::string m_notStored;
    std::uint64_t m_stored = 0;
    std::uint64_t m_refused = 0;
};

} // namespace qord

#endif
