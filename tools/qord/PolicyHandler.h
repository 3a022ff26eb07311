// Answers the requests that carry a new policy.
#ifndef QORD_POLICYHANDLER_H
#define QORD_POLICYHANDLER_H

#include <cstddef>
#include <string_view>

#include <qor/PolicyMessage.h>
#include <qor/Types.h>

#include "qord/PolicyStore.h"

namespace qord
{

/// Reads a request, checks the policy and stores it; says on standard output and standard error
/// what came of it. Whatever the bytes are, it takes a small multiple of their memory, and none for
/// a policy over the limit.
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
    bool Handle(const qor::TByteArray& request, qor::TByteArray& reply, int& result) const;

private:
    bool m_Decide(const qor::TByteArray& request, int& result) const;
    int m_CheckAndStore(std::string_view policy) const;

    TCPolicyStore m_store;
    std::size_t m_maxPolicySize;
};

} // namespace qord

#endif
