// The service's endpoint: the bus name, the registry of clients, event delivery.
#ifndef QOR_QORDBUSSERVER_H
#define QOR_QORDBUSSERVER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>

#include <qor/IDbusService.h>
#include <qor/QORDbus.h>
#include <qor/ServiceInterface.h>

namespace qor
{

class TCDbusPeers;
class TCDbusServerInterfaces;
class TCEventDelivery;
struct TSEvent;
struct TSEventAccount;

/// The server endpoint. The service constructs one and keeps it for its lifetime.
///
/// It owns the well-known name, registers every client that says Hello with the types it wants, and
/// forgets the client when it leaves the bus. A build option limits the clients of each user except
/// root and the service's own user; the Hello of a further client is answered with LimitsExceeded.
/// See TCDbus for the main context and the lifetime: until the service iterates that context, the
/// server does not become ready and learns of no client. The server has a thread of its own, which
/// sends events.
///
/// The server must not be destroyed while a SendMessage is waiting (CancelMessages ends the wait),
/// nor on its own thread. Stop stops it cleanly; without Stop, the destructor drops calls and
/// events that are under way.
class QOR_API TCDbusServer : public TCDbus, public IDbusService
{
public:
    /// Connects to the bus, asks for the name and starts the thread. Blocks meanwhile, for at most
    /// 2 s if a bus accepts the connection and does not answer, but does not wait for the name. If
    /// the connection fails (the log says why), the server exists but never becomes ready.
    ///
    /// @throws boost::thread_resource_error when the thread cannot be created
    /// @throws std::system_error when the thread that limits the wait for a bus cannot be created
    explicit TCDbusServer(bool testMode);

    /// The same, with interfaces of the service's own on its object, which exist before the service
    /// owns the name. Their functions live as long as the server.
    ///
    /// @throws std::invalid_argument if introspection data cannot be read or does not have exactly
    ///         one interface, or if there is no function for calls
    TCDbusServer(bool testMode, const std::vector<TSServiceInterface>& interfaces);
    ~TCDbusServer() override;

    bool SetCallback(int type,
                     const boost::function<bool(const std::vector<unsigned char>&,
                                                std::vector<unsigned char>&)>& callback) override;
    bool UnSetCallback(int type) override;
    std::size_t NumberOfClients() override;
    std::pair<std::size_t, std::size_t>
    SendMessage(int type, const std::vector<unsigned char>& data, int timeout) override;
    void SendEvent(int type, const std::vector<unsigned char>& data, int timeout,
                   const TEventDone& onDone) override;
    void SendEventTo(const std::vector<std::string>& clients, int type,
                     const std::vector<unsigned char>& data, int timeout,
                     const TEventDone& onDone) override;
    TSPeer CurrentPeer() override;
    TSPeer Peer(const std::string& uniqueName) override;
    EServiceState State() override;
    void SetStateCallback(const boost::function<void(EServiceState)>& callback) override;
    bool Stop(unsigned int limit, const boost::function<void()>& onStopped) override;
    bool EmitSignal(const std::string& interfaceName, const std::string& signalName,
                    GVariant* pArguments) override;
    void SetResumeCallback(
        const boost::function<void(const std::string& client, int type)>& callback) override;

    /// Ends all events that are under way, and so every SendMessage that waits: a client that has
    /// not answered yet counts as a failure, and is suspended as after a timeout. Later events are
    /// not affected. Any thread; does not wait until the callers have returned.
    void CancelMessages();

    /// A client as the registry has it.
    struct TSClientInfo
    {
        std::string m_name;          ///< Unique name; Peer finds its user and process.
        std::vector<int> m_types;    ///< The first eight types that it asked for, ascending.
        std::size_t m_numberOfTypes; ///< The number of all its types.
        bool m_isSuspended; ///< It has let a call time out, and is not called for that type.
    };

    /// The present clients, ordered by name; none in a forked child. The cost grows with their
    /// number, not with the number of their types. Any thread; does not block.
    std::vector<TSClientInfo> Clients();

    /// The present clients of one user. If the user has any, it looks at all clients.
    std::vector<TSClientInfo> ClientsOf(unsigned int userId);

    /// Whether the client (its unique name) is registered for the type. Any thread; does not block.
    bool IsRegistered(const std::string& client, int type);

    /// The number of suspended clients. Appends the names of the first atMost of them, ordered. Any
    /// thread; does not block.
    std::size_t SuspendedClients(std::size_t atMost, std::vector<std::string>& names);

    /// What clients and callers cost the server.
    struct TSServerLoad
    {
        std::size_t m_clients = 0; ///< Registered clients.
        std::size_t m_types = 0;   ///< All types that they asked for; 4 bytes each.
        /// Clients by user id, for users that have any. Clients whose user the bus has not told yet
        /// are missing here.
        std::map<unsigned int, std::size_t> m_clientsByUser;
        std::uint64_t m_refusedCalls = 0; ///< Calls that were over a limit, since the start.
    };

    /// The load at the moment. Writes no log line, and takes the same time however many clients
    /// there are. Any thread; does not block.
    TSServerLoad Load();

    struct TSAsyncMessage; ///< One call of an event; for the library itself.

protected:
    bool t_Start();
    void t_Stop();

private:
    struct TSClient
    {
        bool Wants(int type) const;

        std::vector<int> m_events; ///< Ascending.
        TGlibPtr<GDBusProxy> m_pProxy;
        unsigned int m_watcherId = 0;
        boost::shared_ptr<TSEventAccount> m_pAccount;
        std::int64_t m_since = 0; ///< Monotonic time.
        bool m_hasUser = false;
        unsigned int m_userId = 0; ///< Valid if m_hasUser.
    };
    struct TSLoad;
    struct TSStop;
    using TEventPtr = std::shared_ptr<TSEvent>;
    using TClients = std::map<std::string, TSClient>;

    static const GDBusInterfaceVTable m_ownInterfaceVtable;
    static void m_HandleInterfaceCall(GDBusConnection* pConnection, const char* sender,
                                      const char* objectPath, const char* interfaceName,
                                      const char* methodName, GVariant* pParameters,
                                      GDBusMethodInvocation* pInvocation, void* pUserData);
    void m_HandleInterfaceCall(GDBusMethodInvocation* pInvocation) QOR_EXCLUDES(t_stateMutex);

    template <void (TCDbusServer::*MEMBER)()>
    std::unique_ptr<TCDbusTimer> m_NewTimer();
    void m_StartMainLoop();
    static int m_QuitMainLoop(void* pLoop);

    static void m_NameAcquired(GDBusConnection* pConnection, const char* name, void* pUserData);
    void m_NameAcquired(GDBusConnection* pConnection, const char* name);
    static void m_NameLost(GDBusConnection* pConnection, const char* name, void* pUserData);
    void m_AskWhoHasTheName();
    void m_LearnWhoHasTheName();
    static int m_HungUp(int descriptor, unsigned int condition, void* pUserData);
    void m_SetState(EServiceState state) QOR_EXCLUDES(t_stateMutex, m_stateCallbackMutex);
    void m_TellState() QOR_EXCLUDES(t_stateMutex, m_stateCallbackMutex);
    void m_GiveUpName() QOR_EXCLUDES(t_stateMutex);
    void m_GoOnStopping();
    void m_FlushAndGoOn();

    void m_HandleHelloMessage(const char* sender, GVariant* pParameters,
                              GDBusMethodInvocation* pInvocation);
    TSPeer m_FindPeer(const std::string& sender) QOR_EXCLUDES(t_stateMutex);
    bool m_Register(const std::string& client, std::vector<int> events) QOR_EXCLUDES(t_stateMutex);
    static TSClientInfo m_Info(const std::string& name, const TSClient& client);
    bool m_AddClient(const TSPeer& peer) QOR_REQUIRES(t_stateMutex);
    static void m_ClientNameVanished(GDBusConnection* pConnection, const char* name,
                                     void* pUserData);
    void m_ClientNameVanished(GDBusConnection* pConnection, const char* name);
    void m_ForgetClient(TClients::iterator client) QOR_REQUIRES(t_stateMutex);
    static void m_DestroyClient(TSClient& client);
    void m_HandleNews() QOR_EXCLUDES(m_resumeCallbackMutex);
    void m_ForgetClients(const std::vector<std::string>& names) QOR_EXCLUDES(t_stateMutex);

    void m_LookAtLoad() QOR_EXCLUDES(t_stateMutex);
    void m_AskWhetherItReads(const std::string& name);
    void m_AskWhoIsThere();
    void m_ForgetAbsentClients(const std::set<std::string>& present, std::int64_t time)
        QOR_EXCLUDES(t_stateMutex);
    void m_SweepClients() QOR_EXCLUDES(t_stateMutex);
    void m_SweepLater() QOR_EXCLUDES(t_stateMutex);

    TEventPtr m_NewEvent(int type, const TByteArray& data, int timeout) const;
    bool m_Choose(const TEventPtr& pEvent, const std::vector<std::string>* pClients,
                  std::list<TSAsyncMessage>& calls) QOR_EXCLUDES(t_stateMutex);
    void m_SendAndTell(int type, const TByteArray& data, int timeout,
                       const std::vector<std::string>* pClients, const TEventDone& onDone);
    void m_AddCall(const TEventPtr& pEvent, const TSClient& client,
                   std::list<TSAsyncMessage>& calls) QOR_REQUIRES_SHARED(t_stateMutex);

    unsigned int m_ownNameId QOR_GUARDED_BY(t_stateMutex);
    TClients m_clients QOR_GUARDED_BY(t_stateMutex);
    std::size_t m_numberOfTypes QOR_GUARDED_BY(t_stateMutex); ///< Of all clients.
    std::map<unsigned int, std::size_t> m_clientsByUser QOR_GUARDED_BY(t_stateMutex);
    boost::thread m_thread;
    std::unique_ptr<TCDbusServerInterfaces> m_pInterfaces;
    // Set by the start, before the object is exported:
    TGlibPtr<GMainContext> m_pContext;
    TGlibPtr<GMainLoop> m_pMainLoop;
    std::unique_ptr<TCDbusPeers> m_pPeers;
    std::unique_ptr<TCDbusTimer> m_pNews; ///< Due when the delivery has news.
    std::unique_ptr<TCEventDelivery> m_pDelivery;
    std::unique_ptr<TSStop> m_pStop;
    std::unique_ptr<TSLoad> m_pLoad;
    TGlibPtr<GSource> m_pHangUp; ///< Due when the connection closes.

    EServiceState m_state QOR_GUARDED_BY(t_stateMutex);
    TCMutex m_stateCallbackMutex; ///< Held while the function runs.
    boost::function<void(EServiceState)> m_stateCallback QOR_GUARDED_BY(m_stateCallbackMutex);
    EServiceState m_toldState QOR_GUARDED_BY(m_stateCallbackMutex); ///< STARTING: none yet.
    std::unique_ptr<TCDbusTimer> m_pStateNews; ///< Due when the function has to be called.
    std::atomic<int> m_nameAnswer;             ///< Of the bus: who owns the name.
    std::unique_ptr<TCDbusTimer> m_pNameNews;  ///< Due when this answer has come.

    TCMutex m_resumeCallbackMutex; ///< Held while the function runs.
    boost::function<void(const std::string&, int)>
        m_resumeCallback QOR_GUARDED_BY(m_resumeCallbackMutex);
};

} // namespace qor

#endif
