// Answers the requests that carry a new policy.
#ifndef QORD_POLICYHANDLER_H
#define QORD_POLICYHANDLER_H

#include <cstddef>
#include <string>
#include <string_view>

#include <qor/IDbusService.h>
#include <qor/PolicyMessage.h>
#include <qor/Types.h>

#include "qord/PolicyHistory.h"
#include "qord/PolicyStore.h"
#include "qord/Sender.h"

namespace qord
{

/// Who sends a request.
struct TSAsker
{
    qor::TSPeer m_peer;
    bool m_mayChange = false; ///< The policy.
};

/// Reads a request, checks the policy and stores it; says in one line what came of it and who asked
/// for it. Whatever the bytes are, it takes a small multiple of their memory, and none for a policy
/// over the limit.
class TCPolicyHandler
{
public:
    TCPolicyHandler(TCPolicyStore store, std::size_t maxPolicySize);

    /// Makes the policy's place ready and says what is wrong there, also with the policy itself.
    ///
    /// @throws std::runtime_error where no policy could ever be stored
    void Open();

    /// @return false for a request that is not a policy; else the answer, one of
    ///         qor::EPolicyResult, is in reply and result
    bool Handle(const qor::TByteArray& request, const TSAsker& asker, qor::TByteArray& reply,
                int& result);

    const TCPolicyStore& Store() const
    {
        return m_store;
    }
    TCPolicyHistory& History()
    {
        return m_history;
    }

private:
    class TCAttempt;

    bool m_Decide(const TCAttempt& attempt, int& result);
    int m_CheckAndStore(const TCAttempt& attempt);
    int m_Store(const TCAttempt& attempt);

    TCPolicyStore m_store;
    TCPolicyHistory m_history;
    std::size_t m_maxPolicySize;
};

} // namespace qord

#endif
