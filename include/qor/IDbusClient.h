// The client endpoint as applications and proxies see it.
#ifndef QOR_IDBUSCLIENT_H
#define QOR_IDBUSCLIENT_H

#include <qor/IDbus.h>

namespace qor
{

/// The application's end of the channel; obtained from TCDbusClientProvider::Get.
class QOR_API IDbusClient : public virtual IDbus
{
public:
    ~IDbusClient() override;

    /// Sends a message to the service. May be called from any thread, also before the service is
    /// on the bus: where the bus knows how to start the service, the call starts it. Where the bus
    /// was lost, the call looks for it first, for at most 2000 ms. One thread at a time looks,
    /// about once a second; calls on others do not wait for it, and reach nobody. A call that waits
    /// holds up nothing else of the endpoint: no messages, no registrations, no other sends.
    ///
    /// @param type      message type, any signed 32-bit value
    /// @param data      payload; with the envelope it must fit into one bus message (the build's
    ///                  QOR_MAX_MESSAGE_SIZE, 32 MiB by default), otherwise nothing is sent, an
    ///                  error is logged and false is returned
    /// @param response  replaced by the reply's output bytes when a reply arrives, whatever its
    ///                  result; untouched otherwise, and always untouched when isAsync is true
    /// @param isAsync   true: does not wait for the reply, which is dropped; nothing is known of
    ///                  the delivery. false: blocks until the reply arrives, for at most 10000 ms
    ///                  from when the message is sent; the search for a lost bus comes before that.
    ///
    /// @return asynchronous: true, unless the payload does not fit. Synchronous: the result of the
    ///         service's callback; false, with an error log line, when the call failed, timed out,
    ///         or was refused because too much of this sender is waiting in the service. Either:
    ///         false in a forked child.
    virtual bool SendMessage(int type, const std::vector<unsigned char>& data,
                             std::vector<unsigned char>& response, bool isAsync) = 0;
};

} // namespace qor

#endif
