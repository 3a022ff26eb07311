// The client endpoint as applications and proxies see it.
#ifndef QOR_IDBUSCLIENT_H
#define QOR_IDBUSCLIENT_H

#include <functional>
#include <string>

#include <qor/GlibTypes.h>
#include <qor/IDbus.h>
#include <qor/SendResult.h>

namespace qor
{

/// What a client's observers are told.
enum class EClientState
{
    SERVICE_APPEARED, ///< The service is on the bus; IsReady is true.
    SERVICE_VANISHED, ///< It has left the bus, or the bus was lost.
    REGISTERED,       ///< The service has confirmed the types that have callbacks now: events come.
    BUS_LOST,         ///< The connection to the bus has closed; the client looks for the bus.
    BUS_FOUND,        ///< There is a new one, with a new unique name. The service appears next.
    UNREGISTERED ///< The types were refused, or not confirmed within 10 s. Told once; the client
                 ///< repeats them until REGISTERED.
};

/// Observes a client; see IDbusClient::AddStateCallback.
using TStateCallback = std::function<void(EClientState)>;

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

    /// Sends a message to the service and waits for what becomes of it. Like a synchronous
    /// SendMessage, log lines included, but with a reason, a time limit and a way out.
    ///
    /// Blocks for the time limit at most, or until it is cancelled. Where the bus was lost it is
    /// looked for first, within the same limit, for at most 2000 ms.
    ///
    /// @param timeoutMs     in milliseconds from the call; a negative one is the 10000 of
    /// SendMessage
    /// @param cancellation  ends the wait; {} where nobody will
    /// @param mayStart      false: where the service is not on the bus the call ends with
    ///                      NO_SERVICE, also where the bus could start it
    ///
    /// @return in a forked child, and after a start that has failed, NO_BUS; the text then says why
    ///         there was no bus
    virtual TSSendResult Call(int type, const std::vector<unsigned char>& data, int timeoutMs,
                              const TCCancellation& cancellation, bool mayStart = true) = 0;

    /// Sends a message to the service and returns at once; any thread. The service may send events
    /// to this client meanwhile, as after an asynchronous SendMessage. A lost bus is not looked
    /// for: the message ends with NO_BUS until the main context of the endpoint, or a send that
    /// waits, has found the bus again.
    ///
    /// onDone is called exactly once, whatever happens, out of the main context that the caller has
    /// chosen, and never before this function has returned to one that iterates it itself. Nothing
    /// is known as long as nobody iterates it. Nothing wakes it up but messages that are waiting:
    /// for their answers, and every 100 ms to look at time limit, cancellation and connection.
    ///
    /// The one exception is the end of the endpoint. Its destructor drops what is waiting without
    /// calling; it waits for an onDone that is running on another thread, so it must not hold a
    /// lock that one takes. onDone may let go of the last pointer to the endpoint, itself or with
    /// what it holds; it may run while a callback of the endpoint iterates the same context.
    ///
    /// @param timeoutMs     in milliseconds from the call; a negative one is 10000
    /// @param cancellation  ends the wait; {} where nobody will
    /// @param onDone        not empty; must not throw. Destroyed in its context after the call, or
    ///                      with the endpoint
    /// @param pContext      where onDone is called; null for the process's default context. A
    ///                      reference is held meanwhile.
    ///
    /// In a forked child it does nothing, and onDone is not called.
    virtual void CallAsync(int type, const std::vector<unsigned char>& data, int timeoutMs,
                           const TCCancellation& cancellation, const TSendCallback& onDone,
                           GMainContext* pContext) = 0;

    /// Registers an observer, beside those that are there. It is called in the endpoint's main
    /// context with each change, while no callback of the endpoint and no other observer runs; at
    /// first, where there is something to tell, with how things stand (BUS_LOST, or
    /// SERVICE_APPEARED and REGISTERED). Any thread; does not wait. An endpoint whose start has
    /// failed tells nothing.
    ///
    /// The observer must not throw nor be empty, and must not let go of the last pointer to the
    /// endpoint. It may add and remove observers, also itself.
    ///
    /// @return its number, for RemoveStateCallback; never 0, except in a forked child
    virtual unsigned int AddStateCallback(const TStateCallback& callback) = 0;

    /// Removes an observer. When it returns, the observer is not running, unless it is the caller,
    /// and will not run again. Any thread; may wait for that observer, so it must not be called
    /// while holding a lock that it takes.
    ///
    /// @return false if there is none of that number; false in a forked child
    virtual bool RemoveStateCallback(unsigned int id) = 0;

    /// Calls a method of an interface that the service has on its object beside the channel's, as
    /// Call sends a message: with the same limits of time, reasons and blocking. What the service
    /// answers, errors included, is no error here and writes no error line.
    ///
    /// @param interfaceName  D-Bus interface name
    /// @param methodName     of the interface
    /// @param pArguments     a tuple; a floating reference is taken over. Null for none.
    virtual TSMethodResult CallMethod(const std::string& interfaceName,
                                      const std::string& methodName, GVariant* pArguments,
                                      int timeoutMs, const TCCancellation& cancellation,
                                      bool mayStart = true) = 0;

    /// The same, and returns at once; see CallAsync for when and where onDone runs.
    virtual void CallMethodAsync(const std::string& interfaceName, const std::string& methodName,
                                 GVariant* pArguments, int timeoutMs,
                                 const TCCancellation& cancellation, const TMethodCallback& onDone,
                                 GMainContext* pContext) = 0;
};

} // namespace qor

#endif
