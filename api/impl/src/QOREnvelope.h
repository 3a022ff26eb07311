// The wire format: request envelope, reply envelope and event list, each inside an "(ay)" value.
//
// The writers return a new floating value, which a call of GDBus takes over.
#ifndef QOR_QORENVELOPE_H
#define QOR_QORENVELOPE_H

#include <cstddef>
#include <map>
#include <vector>

#include <qor/GlibTypes.h>
#include <qor/Types.h>

namespace qor
{

// The most payload or output bytes that fit into one message of the bus.
std::size_t MaxPayloadSize();

GVariant* WrapBytes(const TByteArray& bytes);
// Appends the value's bytes. A value of another type, which our own endpoints never send, has none.
void UnwrapBytes(GVariant* pValue, TByteArray& bytes);

GVariant* WriteRequest(int type, bool isAsync, const TByteArray& payload);
bool HasRequestHeader(GVariant* pValue);
// False, with the outputs unchanged, for fewer bytes than the header takes.
bool ReadRequest(GVariant* pValue, int& type, bool& isAsync, TByteArray& payload);

GVariant* WriteReply(bool result, const TByteArray& output);
// False, with the outputs unchanged, for an empty reply.
bool ReadReply(GVariant* pValue, bool& result, TByteArray& output);
// The same without a copy of the output bytes.
bool ReadReplyResult(GVariant* pValue, bool& result);

// The argument of Hello: the types that a client has callbacks for, four bytes each.
GVariant* WriteEventList(const std::map<int, TMessageCallback>& callbacks);
// Ascending, each once. Bytes at the end that do not fill a type are ignored.
std::vector<int> ReadEventList(GVariant* pValue);
// How many types the value contains; some may be there twice.
std::size_t EventListLength(GVariant* pValue);

} // namespace qor

#endif
