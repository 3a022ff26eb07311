// The message that hands the service a policy, and its answer: number, result codes, bytes.
#ifndef QOR_POLICYMESSAGE_H
#define QOR_POLICYMESSAGE_H

#include <cstddef>
#include <string>
#include <string_view>

#include <qor/Export.h>
#include <qor/Types.h>

namespace qor
{

/// The message type, from client to service.
constexpr int SET_POLICY = 4;

/// Result codes of qord for a policy handed over with IControl::SetPolicy. The library carries any
/// integer; another service may use codes of its own. The service never answers -1: the library
/// returns it if there was no successful reply.
///
/// With all codes except POLICY_STORED and POLICY_STATE_UNKNOWN the old policy is still in force.
enum EPolicyResult
{
    POLICY_STORED = 0,          ///< The policy is in force and synced to disk.
    POLICY_NOT_WELL_FORMED = 1, ///< The text is not well-formed XML.
    POLICY_NOT_STORED = 2,      ///< The policy could not be stored, or its sender is not known yet.
    POLICY_TOO_LARGE = 3,       ///< The text, or the memory or work to check it, is over a limit.
    POLICY_STATE_UNKNOWN = 4,   ///< The disk failed half-way and the old policy could not be put
                                ///< back: nobody knows which one the next start will find.
    POLICY_NOT_PERMITTED = 5    ///< The sender may not change the policy; its text was not read.
};

/// What ReadPolicyRequest has found.
enum class EPolicyRequest
{
    GOOD,         ///< One whole text.
    TOO_LARGE,    ///< One whole text, over the limit.
    NOT_A_POLICY, ///< Anything else; a service answers it with the result false.
};

// The functions below keep no state; any thread may call them, and they never block.

/// Replaces request by the payload of SET_POLICY.
///
/// @param policy  the text, byte by byte; may be empty
QOR_API void WritePolicyRequest(const std::string& policy, TByteArray& request);

/// Reads the payload of SET_POLICY, of a 32-bit or a 64-bit process with this machine's byte order
/// and with any version of Boost. The bytes need not be trusted: the function compares every length
/// in them with the bytes that are there, and takes no memory that grows with them.
///
/// @param policy   the text, inside the request's bytes; untouched unless the result is GOOD
/// @param error    the reason, in words for a log; untouched if the result is GOOD
/// @param maxSize  the largest text that is accepted, in bytes; by default the largest that the bus
///                 carries
///
/// @throws std::bad_alloc only
QOR_API EPolicyRequest ReadPolicyRequest(const TByteArray& request, std::string_view& policy,
                                         std::string& error,
                                         std::size_t maxSize = static_cast<std::size_t>(-1));

/// Replaces reply by the answer to SET_POLICY, for clients of this process's own word size and
/// version of Boost. A service should use the function below, which also takes the request.
///
/// @param result  one of EPolicyResult, or a code of the service's own
QOR_API void WritePolicyReply(int result, TByteArray& reply);

/// Replaces reply by the answer to a request, in the word size and archive version of the sender,
/// which may not be able to read any others. If the request does not begin with the header of an
/// archive, the answer has this process's own word size and version.
///
/// @param result   one of EPolicyResult, or a code of the service's own
/// @param request  the payload of SET_POLICY; only its header is looked at, and it may be the same
///                 array as reply
QOR_API void WritePolicyReply(int result, const TByteArray& request, TByteArray& reply);

/// Reads the answer to SET_POLICY, of a 32-bit or a 64-bit process. Takes at most a small multiple
/// of the answer's size in memory, whatever the bytes are.
///
/// @return the service's result code
///
/// @throws boost::archive::archive_exception for an answer that cannot be read: an empty one (which
///         is also reported through TCDebug::Assert), one that is cut short or no archive, and one
///         of a newer archive format
QOR_API int ReadPolicyReply(const TByteArray& reply);

/// The size of the largest text, in bytes, that fits into one bus message.
QOR_API std::size_t MaxPolicySize();

} // namespace qor

#endif
