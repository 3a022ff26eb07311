// Reads the request that carries a new policy, and writes the answer.
#ifndef QORD_POLICYREQUEST_H
#define QORD_POLICYREQUEST_H

#include <cstddef>
#include <string>

#include <qor/Types.h>

namespace qord
{

/// The message type with which a client hands over a policy.
constexpr int g_setPolicyType = 4;

/// The size of the policy that a request of that size carries; where another release of the archive
/// class wrote a shorter header, the policy is larger by what that header lacks: one byte.
std::size_t PolicySize(const qor::TByteArray& request);

/// Reads the policy text out of a request. Whatever the bytes are, it allocates no more than a
/// small multiple of their number, and it does not throw (short of memory running out).
///
/// @return false, with the reason in error and policy unchanged, for a request that does not decode
bool DecodePolicyRequest(const qor::TByteArray& request, std::string& policy, std::string& error);

/// Writes the answer for one of qor::EPolicyResult.
void EncodePolicyResult(int result, qor::TByteArray& reply);

} // namespace qord

#endif
