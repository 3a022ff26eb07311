// The application's endpoint, and the provider that shares one per process.
#ifndef QOR_QORDBUSCLIENT_H
#define QOR_QORDBUSCLIENT_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <qor/IDbusClient.h>
#include <qor/QORDbus.h>

namespace qor
{

class TCDbusPending;
class TCDbusRegistration;
class TCDbusStates;

/// The client endpoint: watches the service's name, announces the types that it has callbacks for
/// with Hello whenever the service appears or the set changes, and sends messages to the service.
///
/// Normally obtained from TCDbusClientProvider. See TCDbus for the main context and the lifetime.
///
/// The service confirms each Hello. If it refuses one or does not answer, the client repeats Hello
/// with its present types, at growing intervals, until the service has confirmed it or has left the
/// bus. One error line says so, and observers are told UNREGISTERED. Hello never makes the bus
/// start the service; only a send does.
///
/// A client that has been connected once finds the bus again after a restart of the daemon. It
/// tries once a second while its main context is iterated, and at each send, on the sending thread;
/// but only every 20 s if something accepts the connection and does not answer. Its callbacks stay
/// registered, and it announces them to the service again. It then has a new connection and a new
/// unique name. It does not repeat messages.
class QOR_API TCDbusClient : public TCDbus, public IDbusClient
{
public:
    /// Connects to the bus and starts watching for the service. Blocks meanwhile, for at most 2 s
    /// if a bus accepts the connection and does not answer. If the start fails (the log says why)
    /// the client exists, but never becomes ready: its synchronous sends return false, and
    /// callbacks can still be set.
    ///
    /// @throws std::system_error when the thread that limits the wait for a bus cannot be created
    explicit TCDbusClient(bool testMode);
    /// Waits until the bus has read what was sent without waiting, for 500 ms at most.
    ~TCDbusClient() override;

    bool SetCallback(int type,
                     const boost::function<bool(const std::vector<unsigned char>&,
                                                std::vector<unsigned char>&)>& callback) override;
    bool UnSetCallback(int type) override;
    bool SendMessage(int type, const std::vector<unsigned char>& data,
                     std::vector<unsigned char>& response, bool isAsync) override;
    TSSendResult Call(int type, const std::vector<unsigned char>& data, int timeoutMs,
                      const TCCancellation& cancellation, bool mayStart = true) override;
    void CallAsync(int type, const std::vector<unsigned char>& data, int timeoutMs,
                   const TCCancellation& cancellation, const TSendCallback& onDone,
                   GMainContext* pContext) override;
    unsigned int AddStateCallback(const TStateCallback& callback) override;
    bool RemoveStateCallback(unsigned int id) override;
    TSMethodResult CallMethod(const std::string& interfaceName, const std::string& methodName,
                              GVariant* pArguments, int timeoutMs,
                              const TCCancellation& cancellation, bool mayStart = true) override;
    void CallMethodAsync(const std::string& interfaceName, const std::string& methodName,
                         GVariant* pArguments, int timeoutMs, const TCCancellation& cancellation,
                         const TMethodCallback& onDone, GMainContext* pContext) override;

protected:
    bool t_Start();
    void t_Stop();

private:
    friend class TCDbusClientProvider;

    static std::int64_t m_Deadline(int timeoutMs);
    static void m_FailInChild(TSSendResult& result);
    bool m_IsStarted() const;
    void m_LeaveBus();
    void m_TypesChanged() QOR_REQUIRES(t_callbacksMutex);
    bool m_SendHello(bool mayStart);
    void m_CheckRegistration();
    void m_TellNewObservers();
    void m_PrepareSend(const TSessionPtr& session, bool withHello);
    bool m_IsSendable(std::size_t size, const TCCancellation& cancellation, GError** ppError) const;
    bool m_SendAndForget(const TSessionPtr& session, int type, const TByteArray& data);
    TGlibPtr<GDBusMessage> m_NewSend(int type, bool isAsync, const TByteArray& data) const;
    TGlibPtr<GDBusMessage> m_NewMethodCall(const char* interfaceName, const char* methodName,
                                           GVariant* pArguments) const;
    TSessionPtr m_BeginCall(std::int64_t deadline, const TCCancellation& cancellation,
                            bool mayStart);
    using TOutcome = std::function<void(GDBusMessage*, const GError*)>;
    using TMessageMaker = std::function<TGlibPtr<GDBusMessage>()>;
    void m_CallAsync(std::size_t size, const TMessageMaker& newCall, std::int64_t deadline,
                     const TCCancellation& cancellation, const TOutcome& onOutcome,
                     GMainContext* pContext);
    /// Null and an error if the message was not sent, or no answer came.
    TGlibPtr<GDBusMessage> m_CallAndWait(const TSessionPtr& session, std::size_t size,
                                         const TMessageMaker& newCall, std::int64_t deadline,
                                         const TCCancellation& cancellation, bool mayStart,
                                         GError** ppError) const;
    void m_TakeAnswer(GDBusMessage* pAnswer, const GError* pError, TSSendResult& result) const;
    TSMethodResult m_TakeMethodAnswer(GDBusMessage* pAnswer, const GError* pError) const;
    void m_LogFailure(const TSSendResult& result) const;

    bool m_CreateProxy();
    void m_Watch(const TSessionPtr& session) QOR_EXCLUDES(t_watchMutex);
    void m_Unwatch() QOR_EXCLUDES(t_watchMutex);
    TSessionPtr m_FindBus(std::int64_t deadline, const TCCancellation& cancellation);
    static int m_HungUp(int descriptor, unsigned int condition, void* pUserData);
    void m_Lost();
    void m_Recover();

    static void m_NameAppeared(GDBusConnection* pConnection, const char* name, const char* owner,
                               void* pUserData);
    void m_NameAppeared(GDBusConnection* pConnection, const char* name, const char* owner);
    static void m_NameVanished(GDBusConnection* pConnection, const char* name, void* pUserData);
    void m_NameVanished(GDBusConnection* pConnection, const char* name);

    unsigned int m_watcherId QOR_GUARDED_BY(t_watchMutex);
    TGlibPtr<GDBusProxy> m_pProxy QOR_GUARDED_BY(t_stateMutex);
    TGlibPtr<GSource> m_pHangUp QOR_GUARDED_BY(t_watchMutex); ///< Sees the connection close.
    std::atomic<bool> m_hasSentAsync{false};   ///< Messages may not have been written yet.
    std::atomic<std::int64_t> m_nextAttempt;   ///< To connect: monotonic time in microseconds.
    std::shared_ptr<TCDbusPending> m_pPending; ///< Asynchronous calls.
    std::unique_ptr<TCDbusStates> m_pStates;   ///< Observers.
    // Set when the start has succeeded, once:
    TGlibPtr<GDBusMessage> m_pSend;           ///< Every Send is a copy of it.
    std::unique_ptr<TCDbusTimer> m_pRecovery; ///< Due when the bus is to be looked for.
    std::unique_ptr<TCDbusTimer> m_pNews;     ///< Due when observers have been added.
    std::shared_ptr<TCDbusRegistration> m_pRegistration;
};

/// Shares one client endpoint among all that need it in the process.
class QOR_API TCDbusClientProvider
{
public:
    /// The process's client endpoint; a new one if there is none. It lives as long as somebody
    /// holds the pointer, and is destroyed on the thread that releases the last one.
    ///
    /// Any thread may call it; calls are serialised, and creating an endpoint connects to the bus
    /// and blocks meanwhile. A new endpoint belongs to the calling thread's main context.
    ///
    /// @param testMode  the test names, for an endpoint that has to be created; ignored otherwise
    ///
    /// @return never empty. Exceptions out of creating the endpoint (out of memory, or of threads)
    ///         pass through.
    static boost::shared_ptr<IDbusClient> Get(bool testMode);

private:
    friend struct TSForkHandler;

    static void m_Release(TCDbusClient* pClient);

    static TCMutex* const m_pMutex;
    static boost::weak_ptr<IDbusClient>* const m_pDbusClient QOR_POINTEE_GUARDED_BY(*m_pMutex);
    /// What m_pDbusClient leads to, until it has left the bus.
    static TCDbusClient* m_pLatest QOR_GUARDED_BY(*m_pMutex);
};

} // namespace qor

#endif
