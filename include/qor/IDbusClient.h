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

/// The news that a client tells its observers.
enum class EClientState
{
    SERVICE_APPEARED, ///< The service is on the bus; IsReady is true.
    SERVICE_VANISHED, ///< It has left the bus, or the bus was lost.
    REGISTERED,       ///< The service has confirmed the types that have callbacks now: events come.
    BUS_LOST,         ///< The connection to the bus has closed; the client looks for the bus.
    BUS_FOUND,        ///< There is a new one, with a new unique name. The service appears next.
    UNREGISTERED ///< The service has refused the types, or not confirmed them within 10 s. Told
                 ///< once; the client repeats them until REGISTERED.
};

/// Observes a client; see IDbusClient::AddStateCallback.
using TStateCallback = std::function<void(EClientState)>;

/// The application's end of the channel; obtained from TCDbusClientProvider::Get.
class QOR_API IDbusClient : public virtual IDbus
{
public:
    ~IDbusClient() override;

    /// Sends a message to the service. May be called from any thread, also before the service is on
    /// the bus: if the bus knows how to start the service, the call starts it. If the bus was lost,
    /// the call first looks for it, for at most 2000 ms. Only one thread looks at a time, about
    /// once a second; calls on other threads do not wait for it, and fail. A call that waits does
    /// not delay other messages, registrations and sends of the endpoint.
    ///
    /// @param type      message type, any signed 32-bit value
    /// @param data      payload; with the envelope it must fit into one bus message (the build's
    ///                  QOR_MAX_MESSAGE_SIZE, 32 MiB by default), otherwise nothing is sent, an
    ///                  error is logged and false is returned
    /// @param response  replaced by the reply's output bytes when a reply arrives, whatever its
    ///                  result; untouched otherwise, and always untouched when isAsync is true
    /// @param isAsync   true: does not wait for the reply, which is dropped; the caller does not
    ///                  learn whether the message was delivered. false: blocks until the reply
    ///                  arrives, for at most 10000 ms from when the message is sent; the search for
    ///                  a lost bus comes before that.
    ///
    /// @return asynchronous: true, unless the payload does not fit. Synchronous: the result of the
    ///         service's callback; false, with an error log line, when the call failed, timed out,
    ///         or was refused because too many calls of this sender wait in the service. Both:
    ///         false in a forked child.
    virtual bool SendMessage(int type, const std::vector<unsigned char>& data,
                             std::vector<unsigned char>& response, bool isAsync) = 0;

    /// Sends a message to the service and waits for its outcome. Like a synchronous SendMessage,
    /// with the same log lines, but it returns a reason, and has a time limit and a cancellation.
    ///
    /// Blocks for at most the time limit, or until it is cancelled. If the bus was lost, the call
    /// first looks for it, for at most 2000 ms of the same limit.
    ///
    /// @param timeoutMs     in milliseconds from the call; negative: 10000, as in SendMessage
    /// @param cancellation  ends the wait; {} if nobody will cancel
    /// @param mayStart      false: if the service is not on the bus, the call ends with NO_SERVICE,
    ///                      even if the bus could start the service
    ///
    /// @return the outcome; NO_BUS in a forked child, and if the endpoint has not connected at its
    ///         start; the text then says why
    virtual TSSendResult Call(int type, const std::vector<unsigned char>& data, int timeoutMs,
                              const TCCancellation& cancellation, bool mayStart = true) = 0;

    /// Sends a message to the service and returns at once; any thread. The service may send events
    /// to this client meanwhile, as after an asynchronous SendMessage. The call does not look for a
    /// lost bus: messages end with NO_BUS until the main context of the endpoint, or a send that
    /// waits, has found the bus again.
    ///
    /// The library calls onDone exactly once, in the main context that the caller has chosen; a
    /// thread that iterates this context itself gets the call only after this function has
    /// returned. If nobody iterates the context, onDone is not called. The library wakes the
    /// context up only while messages wait: for their answers, and every 100 ms to check time
    /// limit, cancellation and connection.
    ///
    /// There is one exception: the endpoint's destructor drops waiting messages without calling
    /// their onDone. It waits for an onDone that is running on another thread, so the destroying
    /// thread must not hold a lock that onDone takes. onDone may release the last pointer to the
    /// endpoint, itself or by being destroyed. It may run while a callback of the endpoint iterates
    /// the same context.
    ///
    /// @param timeoutMs     in milliseconds from the call; negative: 10000
    /// @param cancellation  ends the wait; {} if nobody will cancel
    /// @param onDone        not empty; must not throw. Destroyed in its context after the call, or
    ///                      with the endpoint
    /// @param pContext      where onDone is called; null for the process's default context. A
    ///                      reference is held meanwhile.
    ///
    /// In a forked child it does nothing, and onDone is not called.
    virtual void CallAsync(int type, const std::vector<unsigned char>& data, int timeoutMs,
                           const TCCancellation& cancellation, const TSendCallback& onDone,
                           GMainContext* pContext) = 0;

    /// Adds an observer. The endpoint calls it in its main context with each change, while no
    /// callback of the endpoint and no other observer runs. The first calls report the present
    /// state (BUS_LOST, or SERVICE_APPEARED and REGISTERED), if it is known. Any thread; does not
    /// wait. An endpoint whose start has failed never calls it.
    ///
    /// The observer must not throw nor be empty, and must not release the last pointer to the
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

    /// Calls a method of another interface on the service's object, with the same time limit,
    /// reasons and blocking as Call. If the service answers with an error, that is a result like
    /// any other and writes no error line.
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
