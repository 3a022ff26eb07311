// The messages that only qord and qorctl speak, beside the library's own: their numbers and bytes.
#ifndef TOOLS_COMMON_SERVICEMESSAGE_H
#define TOOLS_COMMON_SERVICEMESSAGE_H

#include <cstdint>
#include <string>

#include <qor/Types.h>

namespace tools
{

// The message types, from client to service.
constexpr int GET_POLICY = 6;
constexpr int GET_STATUS = 8;

/// The code in the answer to GET_POLICY; beside these there is qor::POLICY_NOT_PERMITTED.
enum EGetPolicyResult
{
    POLICY_SENT = 0,    ///< The text follows.
    NO_SUCH_POLICY = 1, ///< None is in force, or none of that number is kept.
    POLICY_NOT_READ = 2 ///< It is there and cannot be read, or is too large for a message.
};

// The bytes may be anybody's: nothing that they claim is believed before it has been compared with
// what has come.

/// @param number  of a kept policy, or 0 for the one in force
void WriteGetPolicyRequest(std::int32_t number, qor::TByteArray& request);
bool ReadGetPolicyRequest(const qor::TByteArray& request, std::int32_t& number);

void WriteGetPolicyReply(int result, const std::string& policy, qor::TByteArray& reply);
bool ReadGetPolicyReply(const qor::TByteArray& reply, int& result, std::string& policy);

/// The request has no payload; the answer is one text in JSON.
void WriteStatusReply(const std::string& json, qor::TByteArray& reply);
bool ReadStatusReply(const qor::TByteArray& reply, std::string& json);

} // namespace tools

#endif
