// The service's endpoint as its owner sees it.
#ifndef QOR_IDBUSSERVER_H
#define QOR_IDBUSSERVER_H

#include <cstddef>
#include <utility>

#include <qor/IDbus.h>

namespace qor
{

/// The service's end of the channel.
class QOR_API IDbusServer : public virtual IDbus
{
public:
    ~IDbusServer() override;

    /// Delivers an event to every client that is registered for its type, and blocks until each has
    /// answered, failed or timed out: for at most two timeouts, whatever the clients do. The first
    /// calls to a client also wait until the bus has told who its user is, for at most 2000 ms or
    /// the timeout if that is longer. The calls run in parallel, as many as the bus allows to be
    /// unanswered.
    ///
    /// Any thread except the server's own may call it, also several threads at the same time. On
    /// the thread that iterates the server's main context it blocks that context. The server must
    /// not be destroyed while a call is waiting.
    ///
    /// @param type     message type, any signed 32-bit value
    /// @param data     payload; an envelope that does not fit into one bus message is not sent and
    ///                 counts as a failure for each client
    /// @param timeout  per call, in milliseconds from its start: 0 to INT_MAX - 1; -1 is the bus
    ///                 library's default (25 s), INT_MAX waits without limit. With 0 the calls are
    ///                 sent and count as failures at once. With less than -1 nothing is sent and
    ///                 each client counts as a failure.
    ///
    /// @return the numbers of successful (first) and failed (second) deliveries; their sum is the
    ///         number of clients registered for the type. A success is a client whose callback
    ///         returned true. A client that is waiting for the reply to its own synchronous send
    ///         is not called and counts as a failure. So does a suspended client: it has let an
    ///         earlier call of the same type time out, and has not answered it nor said Hello anew
    ///         since; or it has four unanswered calls of any types. So does each client of a user
    ///         whose clients have let as many calls time out as the user may have. Before the name
    ///         is acquired, with no clients, and in a forked child the result is (0, 0).
    virtual std::pair<std::size_t, std::size_t>
    SendMessage(int type, const std::vector<unsigned char>& data, int timeout) = 0;

    /// The number of clients that announced themselves and are still on the bus, whatever types
    /// they asked for; 0 in a forked child. Any thread may call it.
    virtual std::size_t NumberOfClients() = 0;
};

} // namespace qor

#endif
