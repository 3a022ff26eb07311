// What a service can do beyond answering and sending: events that end with names, who is asking,
// what became of its name, and an ordered end.
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

/// Somebody on the bus, in the bus's own words: nobody can make them up.
struct TSPeer
{
    std::string m_name;        ///< Unique name.
    bool m_isKnown = false;    ///< Whether the bus has told; else nothing below says anything.
    unsigned int m_userId = 0; ///< The effective one.
    int m_processId = 0;       ///< 0 where the bus does not tell.
    bool m_hasGroups = false;  ///< Whether the bus tells the groups; not every release does.
    std::vector<unsigned int> m_groupIds; ///< All, if m_hasGroups.
};

/// What became of an event at one client.
enum class EDelivery
{
    DELIVERED,         ///< Its callback has returned true.
    ANSWERED_FALSE,    ///< Its callback has returned false, or it has none for the type.
    TIMED_OUT,         ///< No answer in time. One may still come, and ends the suspension.
    SUSPENDED,         ///< Not called: an earlier event of the type is still waiting in it.
    LEFT,              ///< It is not on the bus any more.
    FAILED,            ///< The call ended with an error, see the code.
    UNCONFIRMED,       ///< Sent without asking for an answer: its user has too many calls open.
    WAITING_FOR_REPLY, ///< Not called: it waits for the answer to a request of its own just now.
    CANCELLED          ///< CancelMessages, or the end of the server, came first.
};

/// One client's part in an event.
struct TSDelivery
{
    std::string m_name;                         ///< The client's unique name.
    EDelivery m_outcome = EDelivery::CANCELLED; ///< What became of it there.
    int m_code = 0;                             ///< Of the error, a GLib error's; 0 without.
};

/// How the service stands on the bus.
enum class EServiceState
{
    STARTING, ///< The bus has not answered yet.
    ACQUIRED, ///< The name is the service's.
    QUEUED,   ///< Another process has the name; it comes when that leaves.
    REFUSED,  ///< The bus does not let the service have the name.
    LOST,     ///< The name was the service's and has been taken away.
    /// The connection to the bus is gone, or the start has found no bus, which no function is told.
    /// A server does not connect again.
    BUS_CLOSED
};

/// The service's end of the channel, with all that TCDbusServer offers. Code that decides on who
/// may do what takes this interface and can be tested with another implementation of it.
///
/// Functions that are handed over run in the server's main context, never while a message callback
/// or another of them runs, and without a lock of the server; they must not throw. They may call
/// anything of this interface. None is called after the server is destroyed.
class QOR_API IDbusService : public IDbusServer
{
public:
    ~IDbusService() override;

    /// Receives one entry for each client that the event was meant for, ordered by name.
    using TEventDone = boost::function<void(const std::vector<TSDelivery>&)>;

    /// Delivers an event to every client that is registered for its type at this moment. Returns at
    /// once; any thread. A client that is slow holds up nobody else's event.
    ///
    /// @param type     message type, any signed 32-bit value
    /// @param data     payload; one that does not fit into a bus message fails for each client
    /// @param timeout  per call, as of SendMessage
    /// @param onDone   called once, when each client has answered, failed or timed out: within two
    ///                 timeouts, and two seconds more where the bus itself is slow. May be empty.
    ///                 Before the name is acquired it gets no entries. In a forked child, and where
    ///                 the start has found no bus, it is not called.
    virtual void SendEvent(int type, const std::vector<unsigned char>& data, int timeout,
                           const TEventDone& onDone) = 0;

    /// The same for some clients only.
    ///
    /// @param clients  unique names. One that is not registered for the type gets no event and no
    ///                 entry; one that is no client has LEFT.
    virtual void SendEventTo(const std::vector<std::string>& clients, int type,
                             const std::vector<unsigned char>& data, int timeout,
                             const TEventDone& onDone) = 0;

    /// Who sent the message whose callback is running; for the callback itself, on its thread. The
    /// bus is asked when a sender's first call comes in, and a call is not handled before the
    /// answer is there, or has not come for 5 seconds; so this does not block, but for a sender of
    /// whom nothing was heard for a while: it is asked for again, one second at most. Anywhere else
    /// a peer without a name.
    virtual TSPeer CurrentPeer() = 0;

    /// Who is behind a unique name. Known at once for clients and recent senders; else the bus is
    /// asked, and this waits, one second at most. Any thread but the server's own. Names that have
    /// left are forgotten after a while: what is not known says so.
    virtual TSPeer Peer(const std::string& uniqueName) = 0;

    /// How the service stands on the bus. Any thread; does not block. An ordered end changes
    /// nothing here: that the name has been given up is told by the function of Stop.
    virtual EServiceState State() = 0;

    /// Sets the function that is told each change of State, in place of an earlier one; empty for
    /// none. A state other than STARTING that is there already is told as well. Not from inside
    /// the function; waits for one that is running.
    virtual void SetStateCallback(const boost::function<void(EServiceState)>& callback) = 0;

    /// Ends the service in order: from here on calls are refused with the error ServiceUnknown, and
    /// new events are cancelled. Calls that are waiting are answered, and events that are under way
    /// may end, within the limit; what has not ended then is cancelled, for good. When the bus has
    /// taken what was written, the name is given up and the function is called. Any thread; returns
    /// at once. The main context must be iterated until then; the destructor comes after.
    ///
    /// @param limit      milliseconds, for the events; a bus that does not read has half a second
    ///                   beside that
    /// @param onStopped  called once; may be empty. In a forked child, and where the start failed,
    ///                   it is not called: there is nothing to wait for.
    ///
    /// @return whether onStopped will be called: false also for a second call
    virtual bool Stop(unsigned int limit, const boost::function<void()>& onStopped) = 0;

    /// Sends a signal of the service's object to whoever on the bus listens for it. Any thread;
    /// does not wait.
    ///
    /// @param pArguments  a tuple; a floating reference is taken over. Null for none.
    ///
    /// @return false where it cannot go out: it does not fit into a bus message, there is no
    ///         connection, or this is a forked child
    virtual bool EmitSignal(const std::string& interfaceName, const std::string& signalName,
                            GVariant* pArguments) = 0;

    /// Sets the function that is told when a client's late answer lets it be called again for a
    /// type, in place of an earlier function; empty for none. Events of the type that were sent in
    /// between have the outcome SUSPENDED, and the client has not heard of them. A client that says
    /// Hello anew is not told of. Any thread, but not from inside the function; waits for one that
    /// is running.
    ///
    /// @param callback  receives the client's unique name and the type
    virtual void SetResumeCallback(
        const boost::function<void(const std::string& client, int type)>& callback) = 0;
};

} // namespace qor

#endif
