// Types that every endpoint shares: the byte array and the message callback.
#ifndef QOR_TYPES_H
#define QOR_TYPES_H

#include <vector>

#include <boost/function.hpp>

namespace qor
{

/// Payloads, envelopes and callback inputs and outputs are plain byte arrays.
using TByteArray = std::vector<unsigned char>;

/// Handles one incoming message: receives the payload, may fill the output bytes, and returns the
/// result that travels back to the sender together with the output bytes.
///
/// It runs in the main context that dispatches the endpoint's messages (see the endpoint's class),
/// while the endpoint's callback table is locked for reading. No other callback of the endpoint
/// runs meanwhile, even if this one iterates the main context. A callback
/// - must not throw,
/// - must not call SetCallback or UnSetCallback of its own endpoint,
/// - must not release the last reference to its own endpoint,
/// - must not be empty.
using TMessageCallback = boost::function<bool(const TByteArray&, TByteArray&)>;

} // namespace qor

#endif
