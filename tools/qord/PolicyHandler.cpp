// Answers the requests that carry a new policy.
#include "qord/PolicyHandler.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "common/PolicyXml.h"
#include "common/Text.h"
#include "qord/Report.h"

namespace qord
{
namespace
{

constexpr std::size_t MAX_GOOD = 64;

} // namespace

// One request, and the line about it.
class TCPolicyHandler::TCAttempt
{
public:
    TCAttempt(TCPolicyHandler& handler, const qor::TByteArray& request, const TSAsker& asker)
        : m_handler(handler),
          m_asker(asker),
          m_sender(m_Find()),
          m_size(request.size()),
          m_isPolicy(qor::ReadPolicyRequest(request, m_policy, m_error) ==
                     qor::EPolicyRequest::GOOD),
          m_sha256(m_isPolicy && IsPermitted() ? tools::Sha256(m_policy) : "")
    {
    }
    TCAttempt(TCPolicyHandler& handler, std::string_view policy, const TSAsker& asker)
        : m_handler(handler),
          m_asker(asker),
          m_sender(m_Find()),
          m_size(policy.size()),
          m_policy(policy),
          m_isPolicy(true),
          m_sha256(IsPermitted() ? tools::Sha256(policy) : "")
    {
    }

    bool IsPermitted() const
    {
        return m_asker.m_permission == EPermission::GRANTED;
    }
    bool IsRefused() const
    {
        return m_asker.m_permission == EPermission::REFUSED;
    }
    const std::optional<TSSender>& Sender() const
    {
        return m_sender;
    }
    bool IsPolicy() const
    {
        return m_isPolicy;
    }
    std::string_view Policy() const
    {
        return m_policy;
    }
    const std::string& Hash() const
    {
        return m_sha256;
    }
    const std::string& Error() const
    {
        return m_error;
    }

    // The words that were reported.
    const std::string& Words() const
    {
        return m_words;
    }

    // @param result  negative if the request has no result
    void Report(int result, const std::string& words) const
    {
        m_words = words;
        const std::string what = m_isPolicy
                                     ? "a policy of " + std::to_string(m_policy.size()) + " bytes "
                                     : "a request of " + std::to_string(m_size) + " bytes ";
        const std::string hash = m_sha256.empty() ? "" : "SHA-256 " + m_sha256 + "; ";
        const std::string who =
            m_sender ? Describe(*m_sender)
                     : "sender " + m_asker.m_peer.m_name + ", which the bus does not know";
        const std::string line = what + words + " (" + hash + who + ")";
        if (result == qor::POLICY_STORED || result == qor::POLICY_STATE_UNKNOWN)
        {
            ReportWithFields(result != qor::POLICY_STORED, m_Fields(result), line);
            return;
        }
        m_handler.m_refusals.Write(m_sender ? std::optional<uid_t>(m_sender->m_userId)
                                            : std::nullopt,
                                   m_Fields(result), line);
    }

private:
    std::optional<TSSender> m_Find() const
    {
        if (!m_asker.m_peer.m_isKnown)
        {
            return std::nullopt;
        }
        TSSender sender = SenderOf(m_asker.m_peer);
        AskForUserName(sender, m_handler.m_users);
        return sender;
    }

    std::vector<std::string> m_Fields(int result) const
    {
        std::vector<std::string> fields = {"QOR_RESULT=" + std::to_string(result)};
        if (!m_sha256.empty())
        {
            fields.push_back("QOR_POLICY_SHA256=" + m_sha256);
        }
        if (m_sender)
        {
            fields.push_back("QOR_SENDER_UID=" + std::to_string(m_sender->m_userId));
            fields.push_back("QOR_SENDER_PID=" + std::to_string(m_sender->m_processId));
        }
        return fields;
    }

    TCPolicyHandler& m_handler;
    const TSAsker& m_asker;
    std::optional<TSSender> m_sender; ///< Empty if the bus has not told.
    std::size_t m_size;
    std::string_view m_policy; ///< Inside the request.
    std::string m_error;
    bool m_isPolicy;
    std::string m_sha256; ///< Empty if the sender may not: its text is not even read.
    mutable std::string m_words;
};

TCPolicyHandler::TCPolicyHandler(TCPolicyStore store, std::size_t maxPolicySize,
                                 TCUserDatabase& users)
    : m_store(std::move(store)), m_maxPolicySize(maxPolicySize), m_users(users), m_refusals(users)
{
}

void TCPolicyHandler::Open()
{
    std::string warning;
    std::string error = m_store.Open(warning);
    if (!error.empty())
    {
        ReportError("nothing can be stored at the moment: %s", error.c_str());
    }
    if (!warning.empty())
    {
        ReportError("beside the policy, not all is well: %s", warning.c_str());
    }
    m_history.Load(m_store);
    m_CheckInForce();
}

void TCPolicyHandler::LookAtForeignPolicy()
{
    const std::string hash = m_CheckInForce();
    const bool isThere = !hash.empty();
    ReportWithFields(!isThere, {"QOR_POLICY_SHA256=" + hash},
                     isThere ? "another program has changed the policy file; its user is not "
                               "known (SHA-256 " +
                                   hash + ")"
                             : "another program has removed the policy file, or made it "
                               "unreadable; its user is not known");
}

// The hash of the policy in force; empty if it cannot be read or there is none.
std::string TCPolicyHandler::m_CheckInForce()
{
    std::string policy;
    std::string error;
    const bool isRead = m_store.Read(0, policy, m_maxPolicySize, error);
    std::string hash = isRead ? tools::Sha256(policy) : "";
    m_hasSeenPolicy = m_hasSeenPolicy || isRead;
    if (isRead)
    {
        m_Check(policy, hash, error);
    }
    if (!error.empty())
    {
        ReportError("the policy in force is no good: %s", error.c_str());
    }
    return hash;
}

bool TCPolicyHandler::Handle(const qor::TByteArray& request, const TSAsker& asker,
                             qor::TByteArray& reply, int& result)
{
    const TCAttempt attempt(*this, request, asker);
    if (attempt.IsPermitted() && !attempt.IsPolicy())
    {
        attempt.Report(-1, "is not a policy: " + attempt.Error());
        ++m_refused;
        return false;
    }
    result = m_Decide(attempt, std::nullopt);
    qor::WritePolicyReply(result, request, reply);
    return true;
}

TSVerdict TCPolicyHandler::Set(std::string_view policy, const TSAsker& asker,
                               const std::optional<std::string>& ifMatch)
{
    const TCAttempt attempt(*this, policy, asker);
    TSVerdict verdict;
    verdict.m_result = m_Decide(attempt, ifMatch);
    verdict.m_sha256 = attempt.Hash();
    if (verdict.m_result != qor::POLICY_STORED)
    {
        verdict.m_words = "the policy " + attempt.Words();
    }
    return verdict;
}

std::string TCPolicyHandler::HashInForce()
{
    const auto policies = m_store.List();
    return policies.empty() || policies.back().m_number != 0
               ? ""
               : m_history.Find(m_store, policies.back()).m_sha256;
}

int TCPolicyHandler::m_Decide(const TCAttempt& attempt, const std::optional<std::string>& ifMatch)
{
    int result = POLICY_CHANGED;
    if (!attempt.Sender())
    {
        result = qor::POLICY_NOT_STORED; // the sender may be permitted: it may try again
        attempt.Report(result, "is not stored: the bus has not told who sends it; try again");
    }
    else if (!attempt.IsPermitted() && !attempt.IsRefused())
    {
        result = qor::POLICY_NOT_STORED;
        attempt.Report(result, "is not stored: the user database has not told whether its sender "
                               "may change the policy; try again");
    }
    else if (attempt.IsRefused())
    {
        result = qor::POLICY_NOT_PERMITTED;
        attempt.Report(result, "is refused: its sender may not change the policy");
    }
    else if (ifMatch && *ifMatch != HashInForce())
    {
        const std::string inForce = HashInForce();
        attempt.Report(result, "is refused: the one in force has changed" +
                                   (inForce.empty() ? ", there is none" : ", SHA-256 " + inForce));
    }
    else
    {
        result = m_CheckAndStore(attempt);
    }
    m_stored += result == qor::POLICY_STORED ? 1 : 0;
    m_refused += result == qor::POLICY_STORED ? 0 : 1;
    return result;
}

bool TCPolicyHandler::IsGood(const std::string& sha256)
{
    std::string policy;
    std::string error;
    return m_IsKnownGood(sha256) ||
           (m_store.Read(0, policy, m_maxPolicySize, error) &&
            m_Check(policy, tools::Sha256(policy), error) == qor::POLICY_STORED);
}

// Every stored policy has been checked before.
bool TCPolicyHandler::m_IsKnownGood(const std::string& sha256) const
{
    return std::find(m_good.begin(), m_good.end(), sha256) != m_good.end() ||
           m_history.HasStored(sha256);
}

qor::EPolicyResult TCPolicyHandler::m_Check(std::string_view policy, const std::string& sha256,
                                            std::string& error)
{
    if (m_IsKnownGood(sha256))
    {
        return qor::POLICY_STORED;
    }
    const qor::EPolicyResult verdict =
        tools::CheckPolicyXml(policy, error, tools::POLICY_CHECK_MEMORY);
    if (verdict == qor::POLICY_STORED)
    {
        m_good.push_back(sha256);
        if (m_good.size() > MAX_GOOD)
        {
            m_good.pop_front();
        }
    }
    return verdict;
}

int TCPolicyHandler::m_CheckAndStore(const TCAttempt& attempt)
{
    if (attempt.Policy().size() > m_maxPolicySize)
    {
        attempt.Report(qor::POLICY_TOO_LARGE,
                       "is too large: " + std::to_string(m_maxPolicySize) + " are accepted");
        return qor::POLICY_TOO_LARGE;
    }
    std::string error;
    const qor::EPolicyResult verdict = m_Check(attempt.Policy(), attempt.Hash(), error);
    if (verdict != qor::POLICY_STORED)
    {
        attempt.Report(verdict, (verdict == qor::POLICY_NOT_WELL_FORMED ? "is not well-formed: "
                                                                        : "is not checked: ") +
                                    error);
        return verdict;
    }
    return m_Store(attempt);
}

int TCPolicyHandler::m_Store(const TCAttempt& attempt)
{
    const TSStoreOutcome outcome = m_store.Store(
        attempt.Policy(), [this, &attempt](const struct stat& file)
        { return m_history.Remember(m_store, file, attempt.Hash(), attempt.Sender()); });
    m_notStored = outcome.m_result == qor::POLICY_STORED ? "" : outcome.m_words;
    if (outcome.m_result != qor::POLICY_STORED)
    {
        attempt.Report(outcome.m_result, (outcome.m_result == qor::POLICY_STATE_UNKNOWN
                                              ? "may be in force, or the one before it: "
                                              : "could not be stored: ") +
                                             outcome.m_words);
        return outcome.m_result;
    }
    m_hasSeenPolicy = true;
    attempt.Report(outcome.m_result, outcome.m_wasInForce ? "is in force already" : "is stored");
    if (!outcome.m_words.empty())
    {
        ReportError("beside the policy, not all is well: %s", outcome.m_words.c_str());
    }
    return outcome.m_result;
}

} // namespace qord
