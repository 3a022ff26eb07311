// The payloads of the message that carries a policy to the service, and of its reply.
#ifndef QOR_QORPOLICYMESSAGE_H
#define QOR_QORPOLICYMESSAGE_H

#include <string>

#include <qor/Types.h>

namespace qor
{

void WritePolicyRequest(const std::string& policy, TByteArray& request);

// Throws boost::archive::archive_exception, and nothing else, for a reply that cannot be read.
// Whatever the bytes are, no more memory is taken than a small multiple of their number.
int ReadPolicyReply(const TByteArray& reply);

} // namespace qor

#endif
