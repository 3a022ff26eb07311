// The service's endpoint: the bus name, the registry of clients, event delivery.
#ifndef QOR_QORDBUSSERVER_H
#define QOR_QORDBUSSERVER_H

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>

#include <qor/IDbusServer.h>
#include <qor/QORDbus.h>

namespace qor
{

class TCEventDelivery;
struct TSEventAccount;

/// The server endpoint. The service constructs one and keeps it for its lifetime.
///
/// It owns the well-known name, registers every client that says Hello with the types it wants, and
/// forgets it when it leaves the bus. See TCDbus for the main context and the lifetime: the service
/// must iterate that context, until then the server does not become ready and learns of no client.
/// A thread of the server's own carries the outgoing event calls.
///
/// The server must not be destroyed while a SendMessage is waiting (CancelMessages ends the wait),
/// nor on its own thread.
class QOR_API TCDbusServer : public TCDbus, public IDbusServer
{
public:
    /// Connects to the bus, asks for the name and starts the thread; blocks meanwhile, but does not
    /// wait for the name. Where the connection fails (the log says why) the server exists but never
    /// becomes ready.
    ///
    /// @throws boost::thread_resource_error when the thread cannot be created
    explicit TCDbusServer(bool testMode);
    ~TCDbusServer() override;

    bool SetCallback(int type,
                     const boost::function<bool(const std::vector<unsigned char>&,
                                                std::vector<unsigned char>&)>& callback) override;
    bool UnSetCallback(int type) override;
    std::size_t NumberOfClients() override;
    std::pair<std::size_t, std::size_t>
    SendMessage(int type, const std::vector<unsigned char>& data, int timeout) override;

    /// Ends every SendMessage that is waiting: what has no answer yet counts as a failure, and a
    /// client that has not answered is suspended as after a timeout. Later ones are not affected.
    /// Any thread; does not wait for the callers to return.
    void CancelMessages();

    /// A client as the registry has it.
    struct TSClientInfo
    {
        std::string m_name;    ///< Unique name on the bus, which tells user and process of it.
        std::set<int> m_types; ///< What it asked for.
        bool m_isSuspended;    ///< It has let a call time out and is not called for that type.
    };

    /// The clients of this moment, ordered by name; none in a forked child. Any thread.
    std::vector<TSClientInfo> Clients();

protected:
    bool t_Start();
    void t_Stop();

private:
    friend class TCEventDelivery;
    friend struct TSEventCall;
    struct TSClient
    {
        std::set<int> m_events;
        TGlibPtr<GDBusProxy> m_pProxy;
        unsigned int m_watcherId = 0;
        boost::shared_ptr<TSEventAccount> m_pAccount;
    };
    struct TSAsyncMessage;
    using TClients = std::map<std::string, TSClient>;

    void m_StartMainLoop();
    static int m_QuitMainLoop(void* pLoop);

    static void m_NameAcquired(GDBusConnection* pConnection, const char* name, void* pUserData);
    void m_NameAcquired(GDBusConnection* pConnection, const char* name);
    static void m_NameLost(GDBusConnection* pConnection, const char* name, void* pUserData);

    void m_HandleHelloMessage(const char* sender, GVariant* pParameters,
                              GDBusMethodInvocation* pInvocation);
    bool m_AddClient(const std::string& name) QOR_REQUIRES(t_stateMutex);
    static void m_ClientNameVanished(GDBusConnection* pConnection, const char* name,
                                     void* pUserData);
    void m_ClientNameVanished(GDBusConnection* pConnection, const char* name);
    void m_ForgetClient(TClients::iterator client) QOR_REQUIRES(t_stateMutex);
    static void m_DestroyClient(TSClient& client);
    void m_ForgetGoneClients();

    bool m_IsToBeCalled(const TSClient& client, int type, const TByteArray& data, int timeout,
                        std::size_t& failed) const QOR_REQUIRES_SHARED(t_stateMutex);

    unsigned int m_ownNameId QOR_GUARDED_BY(t_stateMutex);
    TClients m_clients QOR_GUARDED_BY(t_stateMutex);
    boost::thread m_thread;
    // Set by the start, before the object is exported:
    TGlibPtr<GMainContext> m_pContext;
    TGlibPtr<GMainLoop> m_pMainLoop;
    std::unique_ptr<TCDbusTimer> m_pGoneCheck; ///< Due when calls have shown that clients are gone.
    std::unique_ptr<TCEventDelivery> m_pDelivery;
};

} // namespace qor

#endif
