// Further functions of a service: events with an outcome for each client, the sender of a request,
// the state of the service's name, and a clean stop.
#ifndef QOR_IDBUSSERVICE_H
#define QOR_IDBUSSERVICE_H

#include <string>
#include <vector>

#include <boost/function.hpp>

#include <qor/Export.h>
#include <qor/GlibTypes.h>
#include <qor/IDbusServer.h>

namespace qor
{

/// A sender or client, as the bus describes it; it cannot be forged.
struct TSPeer
{
    std::string m_name;        ///< Unique name.
    bool m_isKnown = false;    ///< The bus has answered; else the members below mean nothing.
    unsigned int m_userId = 0; ///< The effective one.
    int m_processId = 0;       ///< 0 if the bus does not tell.
    bool m_hasGroups = false;  ///< Whether the bus tells the groups; not every release does.
    std::vector<unsigned int> m_groupIds; ///< All, if m_hasGroups.
};

/// The outcome of an event for one client.
enum class EDelivery
{
    DELIVERED,         ///< Its callback has returned true.
    ANSWERED_FALSE,    ///< Its callback has returned false, or it has none for the type.
    TIMED_OUT,         ///< No answer in time. One may still come, and ends the suspension.
    SUSPENDED,         ///< Not called: it has not answered an earlier event of the type.
    LEFT,              ///< It has left the bus.
    FAILED,            ///< The call ended with an error, see the code.
    UNCONFIRMED,       ///< Sent without asking for an answer: its user has too many calls open.
    WAITING_FOR_REPLY, ///< Not called: it was waiting for the answer to its own request.
    CANCELLED          ///< CancelMessages was called, or the server stopped, before the answer.
};

/// One client and the outcome of an event for it.
struct TSDelivery
{
    std::string m_name;                         ///< The client's unique name.
    EDelivery m_outcome = EDelivery::CANCELLED; ///< The outcome.
    int m_code = 0;                             ///< Number of the GLib error; 0 without an error.
};

/// The state of the service's name on the bus.
enum class EServiceState
{
    STARTING, ///< The bus has not answered yet.
    ACQUIRED, ///< The service owns the name.
    QUEUED,   ///< Another process owns the name; the service gets it when that one leaves.
    REFUSED,  ///< The bus policy does not allow the service to own the name.
    LOST,     ///< The service owned the name, and the bus has taken it away.
    /// The connection to the bus is gone; or there was no bus at the start, in which case no
    /// function is called. A server does not connect again.
    BUS_CLOSED
};

/// The service's end of the channel. Code of a service that uses only this interface can be tested
/// with another implementation of it.
///
/// The server calls the functions that it is given in its main context, never while a message
/// callback or another such function runs, and without a lock. They must not throw. They may call
/// all functions of this interface. The server calls none after its destruction.
class QOR_API IDbusService : public IDbusServer
{
public:
    ~IDbusService() override;

    /// Receives one entry for each client that the event was meant for, ordered by name.
    using TEventDone = boost::function<void(const std::vector<TSDelivery>&)>;

    /// Delivers an event to every client that is registered for its type at this moment. Returns at
    /// once; any thread. A slow client does not delay the event for others.
    ///
    /// @param type     message type, any signed 32-bit value
    /// @param data     payload; one that does not fit into a bus message fails for each client
    /// @param timeout  per call, as of SendMessage
    /// @param onDone   called once, when each client has answered, failed or timed out: within two
    ///                 timeouts, and two seconds more if the bus itself is slow. May be empty.
    ///                 Before the name is acquired it gets an empty list. It is not called in a
    ///                 forked child, nor if there was no bus at the start.
    virtual void SendEvent(int type, const std::vector<unsigned char>& data, int timeout,
                           const TEventDone& onDone) = 0;

    /// Like SendEvent, but only to the clients that are named.
    ///
    /// @param clients  unique names. A client that is not registered for the type gets no event and
    ///                 no entry; a name that is not a client's has the outcome LEFT.
    virtual void SendEventTo(const std::vector<std::string>& clients, int type,
                             const std::vector<unsigned char>& data, int timeout,
                             const TEventDone& onDone) = 0;

    /// The sender of the message whose callback is running. Only the callback itself may call it,
    /// on its thread; anywhere else the result has no name. The server asks the bus when a sender's
    /// first call arrives, and handles the call when the bus has answered or after 5 seconds. So
    /// this does not block, except for a sender that was silent for a while: the server asks for it
    /// again and waits for one second at most.
    virtual TSPeer CurrentPeer() = 0;

    /// The user and process of a unique name. For clients and recent senders it returns at once;
    /// for others it asks the bus, and waits for one second at most. Any thread except the server's
    /// own. The server forgets names that have left after a while; m_isKnown is false then.
    virtual TSPeer Peer(const std::string& uniqueName) = 0;

    /// The state of the service's name. Any thread; does not block. Stop does not change it: it
    /// calls its own function when the server has given up the name.
    virtual EServiceState State() = 0;

    /// Sets the function that is called with each change of State; it replaces an earlier one, and
    /// an empty function removes it. If the present state is not STARTING, the function is called
    /// with it as well. Must not be called inside the function; waits for a function that is
    /// running.
    virtual void SetStateCallback(const boost::function<void(EServiceState)>& callback) = 0;

    /// Stops the service cleanly. From now on the server refuses calls with the error
    /// ServiceUnknown and cancels new events. It answers the calls that wait, and gives events that
    /// are under way the limit to end; then it cancels the rest. When the bus has taken all that
    /// was written, the server gives up the name and calls the function. Any thread; returns at
    /// once. The main context must be iterated until then; destroy the server afterwards.
    ///
    /// @param limit      in milliseconds, for the events; a bus that does not read gets half a
    /// second
    ///                   more
    /// @param onStopped  called once; may be empty. It is not called in a forked child, nor if the
    ///                   start has failed, because there is nothing to wait for.
    ///
    /// @return whether onStopped will be called; false for a second call
    virtual bool Stop(unsigned int limit, const boost::function<void()>& onStopped) = 0;

    /// Sends a signal of the service's object to all listeners on the bus. Any thread; does not
    /// wait.
    ///
    /// @param pArguments  a tuple; a floating reference is taken over. Null for none.
    ///
    /// @return false if it cannot be sent: it does not fit into a bus message, there is no
    /// connection,
    ///         or this is a forked child
    virtual bool EmitSignal(const std::string& interfaceName, const std::string& signalName,
                            GVariant* pArguments) = 0;

    /// Sets the function that is called when a suspended client has answered late and can get
    /// events of the type again; it replaces an earlier one, and an empty function removes it.
    /// Events of the type that were sent in between had the outcome SUSPENDED, and the client has
    /// not heard of them. The function is not called for a client that says Hello anew. Any thread,
    /// but not inside the function; waits for a function that is running.
    ///
    /// @param callback  receives the client's unique name and the type
    virtual void SetResumeCallback(
        const boost::function<void(const std::string& client, int type)>& callback) = 0;
};

} // namespace qor

#endif
