// What one neighbour on the bus may cost. Build options; docs/operations.md has the reasons.
#ifndef QOR_QORLIMITS_H
#define QOR_QORLIMITS_H

#include <cstddef>

namespace qor
{

// Calls of one sender that wait in the main context, and their bytes.
constexpr std::size_t MAX_QUEUED_CALLS = QOR_MAX_QUEUED_CALLS;
constexpr std::size_t MAX_QUEUED_BYTES = QOR_MAX_QUEUED_BYTES;
// Those of all senders: one user may have hundreds of connections. One small call of a sender who
// has nothing waiting passes all the same, so that nobody can lock others out; up to as many as the
// bytes of all allow.
constexpr std::size_t MAX_QUEUED_CALLS_IN_ALL = std::size_t{2} * MAX_QUEUED_CALLS;
constexpr std::size_t MAX_QUEUED_BYTES_IN_ALL = std::size_t{4} * MAX_QUEUED_BYTES;
constexpr std::size_t SMALL_CALL = 65536;
constexpr std::size_t MAX_SMALL_CALLS = MAX_QUEUED_BYTES_IN_ALL / SMALL_CALL;

constexpr std::size_t MAX_HELLO_TYPES = QOR_MAX_HELLO_TYPES;

// Event calls without an answer: of all clients, and of one client.
constexpr std::size_t EVENT_SLOTS = QOR_EVENT_SLOTS;
constexpr std::size_t EVENT_SLOTS_PER_CLIENT = 4;

// Bytes of event calls that the bus has yet to read; one call may always wait.
constexpr std::size_t MAX_UNSENT_BYTES = MAX_QUEUED_BYTES;

static_assert(2 * EVENT_SLOTS_PER_CLIENT <= EVENT_SLOTS, "a user has half of the slots at most");

} // namespace qor

#endif
