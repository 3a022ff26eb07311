// Limits for what one neighbour on the bus may cost. Some are build options; docs/operations.md has
// the reasons.
#ifndef QOR_QORLIMITS_H
#define QOR_QORLIMITS_H

#include <cstddef>
#include <cstdint>

namespace qor
{

// Calls of one user that are open, and their bytes.
constexpr std::size_t MAX_QUEUED_CALLS = QOR_MAX_QUEUED_CALLS;
constexpr std::size_t MAX_QUEUED_BYTES = QOR_MAX_QUEUED_BYTES;
// Those of all users together. A few small calls of each user still pass, so that no user can lock
// out others; at most as many as the bytes of all allow.
constexpr std::size_t MAX_QUEUED_CALLS_IN_ALL = std::size_t{2} * MAX_QUEUED_CALLS;
constexpr std::size_t MAX_QUEUED_BYTES_IN_ALL = std::size_t{4} * MAX_QUEUED_BYTES;
constexpr std::size_t FEW_CALLS = 8;
constexpr std::size_t SMALL_CALL = 65536;
constexpr std::size_t MAX_SMALL_CALLS = MAX_QUEUED_BYTES_IN_ALL / SMALL_CALL;
// Calls to other paths of the connection, which are not the endpoint's.
constexpr std::size_t MAX_FOREIGN_CALLS = std::size_t{16} * MAX_QUEUED_CALLS;

// Bytes of answers of which it is not known that they have been read. A user may have as many as
// are left: half of them if no other user has any. A bus with stock limits keeps about twice as
// many, and one message of the largest size.
constexpr std::size_t MAX_UNREAD_BYTES = QOR_MAX_QUEUED_BYTES;
// With this many unread bytes a sender is asked whether it reads.
constexpr std::size_t UNREAD_AT_PING = MAX_UNREAD_BYTES / 64;
// The most questions without an answer at a time; the bus has room for them besides the event
// calls.
constexpr std::size_t PING_SLOTS = 8;
// The bytes of an answer besides its arguments.
constexpr std::size_t ANSWER_OVERHEAD = 256;

// Answers that wait to be written. After a large one, one at a time.
constexpr std::size_t MAX_UNWRITTEN = 16;
constexpr std::size_t LARGE_ANSWER = 65536;
constexpr std::size_t MAX_UNWRITTEN_REFUSALS = 1024;

// The most questions about senders without an answer at a time. Each answer may hold a descriptor
// of the sender's process, and a bus with stock limits refuses everybody's calls to a connection
// that has not read 64 of them; two endpoints may share a connection.
constexpr std::size_t PEER_SLOTS = 32;

// How many senders are kept before the first search for those that are gone.
constexpr std::size_t FIRST_SWEEP = 256;

// Refusals of one user, or of all callers of an endpoint, that follow each other within this time
// are one burst, with one log line. In microseconds.
constexpr std::int64_t BURST_GAP_US = 10000000;

constexpr std::size_t MAX_HELLO_TYPES = QOR_MAX_HELLO_TYPES;
constexpr std::size_t MAX_CLIENTS_PER_USER = QOR_MAX_CLIENTS_PER_USER;

// Event calls without an answer: of all clients, and of one client.
constexpr std::size_t EVENT_SLOTS = QOR_EVENT_SLOTS;
constexpr std::size_t EVENT_SLOTS_PER_CLIENT = 4;

// Bytes of event calls that the bus has not read yet; one call may always wait.
constexpr std::size_t MAX_UNSENT_BYTES = MAX_QUEUED_BYTES;

static_assert(2 * EVENT_SLOTS_PER_CLIENT <= EVENT_SLOTS, "a user has half of the slots at most");

} // namespace qor

#endif
