// The common base of both endpoints: connection, exported object, message dispatch, wire format.
#ifndef QOR_QORDBUS_H
#define QOR_QORDBUS_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

#include <qor/Export.h>
#include <qor/GlibTypes.h>
#include <qor/IDbus.h>
#include <qor/Mutex.h>

namespace qor
{

class TCDbusEntry;
class TCDbusSession;
class TCDbusTimer;
class TCDbusTurns;
struct TSDbusLink;

/// An endpoint on the D-Bus system bus. It exports one object with the interface
/// com.norvane.qor.IControl and hands each incoming Send to the callback of the message's type.
///
/// Main context: incoming messages and name events are dispatched by the thread-default main
/// context of the thread that constructs the endpoint (normally the process's default context). The
/// owner of the endpoint must iterate that context; otherwise nothing arrives. An endpoint handles
/// one message at a time: messages that arrive while a callback iterates the context itself are
/// handled after that callback has returned, one in each iteration of the context.
///
/// Lifetime: the last reference may be dropped on any thread but never from inside one of the
/// endpoint's own handlers or callbacks. The destructor waits for a handler that is running at that
/// moment; afterwards no handler runs, even if calls are still queued in the main context. If the
/// destructor does not run on the thread that iterates the main context, and the bus goes away at
/// the same moment, GLib may print a warning about a signal handler; it is harmless.
///
/// Losing the bus does not end the process: calls then fail with a log line. A client finds the bus
/// again (see TCDbusClient). A service should exit, and systemd start it again.
///
/// Limits: build options limit the calls, and their bytes, that one sender (in a server: one user)
/// may have open; file descriptors are not accepted (docs/operations.md). The endpoint answers a
/// call over a limit with the error LimitsExceeded before it is queued.
///
/// Fork: a child process inherits no connection to the bus. It must not use an endpoint of its
/// parent, but may release it (at exit at the latest) without effect on the parent. If the parent
/// has connected before, a new endpoint in the child never starts (errno 15 in the log). To use the
/// library in a child, fork before its first use.
///
/// Locks: no thread holds one of an endpoint's locks while it waits for an answer of the bus or of
/// another process, with one exception: a message callback runs with t_callbacksMutex held shared,
/// so registering and removing callbacks wait for it. t_stateMutex and t_watchMutex are innermost
/// and held briefly.
class QOR_API TCDbus : public virtual IDbus
{
public:
    /// Chooses the names on the bus (test mode: com.norvane.qor.IControlTest and
    /// /com/norvane/qor/CommunicationChannelTest). Does not touch the bus.
    explicit TCDbus(bool testMode);
    ~TCDbus() override;

    TCDbus(const TCDbus&) = delete;
    TCDbus& operator=(const TCDbus&) = delete;

    bool IsReady() override;

    /// This connection's unique name on the bus; empty without a connection, and in a forked child.
    /// A client that has found a restarted bus has a new one. Any thread.
    std::string GetUniqueName();

    /// The sender of the message whose callback is running: its unique name, for which the bus
    /// knows user and process (GetConnectionCredentials of org.freedesktop.DBus). Only the callback
    /// itself gets it, on its thread; the result is empty anywhere else. Does not block.
    std::string GetCurrentSender();

    /// The most payload or output bytes that one message of this build can carry.
    static std::size_t MaxPayload();

private:
    [[maybe_unused]] bool m_testMode;

protected:
    /// Handles one D-Bus method: the sender's unique name, the parameters, and the invocation,
    /// which the handler answers.
    using TMethodHandler = boost::function<void(const char*, GVariant*, GDBusMethodInvocation*)>;

    /// A connection, its unique name, and the calls on it: what an endpoint works with at a time. A
    /// holder of the pointer may use it without a lock; the connection may have closed.
    using TSessionPtr = boost::shared_ptr<TCDbusSession>;

    /// Connects and exports the object.
    bool t_Start();

    /// Connects to the bus and registers the Send handler; waits for the bus, for a limited time.
    bool t_Connect();

    /// Releases what t_Start acquired; runs once, after t_StopHandlers.
    void t_Stop();

    /// The present session; null before the endpoint has connected.
    TSessionPtr t_Session() QOR_EXCLUDES(t_stateMutex);

    /// Makes the endpoint use this session from now on.
    void t_SetSession(TSessionPtr session) QOR_EXCLUDES(t_stateMutex);

    /// Exports the object on the session's connection. The caller iterates the endpoint's main
    /// context or has made it the thread's default.
    bool t_Export(const TSessionPtr& session) QOR_EXCLUDES(t_watchMutex);

    /// Ends the export of the object, on whichever connection it is. Any thread; repeated calls do
    /// nothing.
    void t_Unexport() QOR_EXCLUDES(t_watchMutex);

    /// Whether the object is exported on this session's connection.
    bool t_IsExportedOn(const TSessionPtr& session) QOR_EXCLUDES(t_watchMutex);

    /// Whether the calling thread is inside a callback or name event of this endpoint.
    bool t_IsInHandler() const;

    /// Sets the handler of a D-Bus method, replacing an earlier one. Only before the object is
    /// exported.
    void t_SetDbusCallback(const char* method, const TMethodHandler& handler);

    /// From now on no handler starts, and the endpoint refuses no more calls. Does not wait.
    void t_SeverHandlers();

    /// The same, and waits for a handler that is running. Must be called without locks, since that
    /// handler may need them to finish.
    void t_StopHandlers();

    /// Looks again for calls that may be handled now. Inside a handler.
    void t_TryWaitingCalls();

    /// Whether t_SeverHandlers has been called.
    bool t_IsSevered() const;

    /// False in a forked child, where this endpoint must not be touched.
    bool t_IsInOwnProcess() const;

    /// Replaces t_StopHandlers and t_Stop in a forked child: forgets all inherited objects without
    /// releasing them, because threads of the parent may have been using them.
    void t_Abandon();

    /// A new reference to the link, which GLib gets as user data instead of the endpoint.
    void* t_NewUserData();

    /// Whether a message with that many payload bytes fits under the bus's size limit.
    static bool t_Fits(std::size_t payloadSize);

    /// Unwraps an "(ay)" value and appends its bytes. A value of another type has no bytes.
    void t_ConvertBytes(GVariant* pValue, TByteArray& bytes) const;
    /// Wraps bytes into a new floating "(ay)" value.
    void t_ConvertBytes(const TByteArray& bytes, GVariant*& pValue) const;
    /// Writes a request envelope (type, async flag, payload) as a new floating "(ay)" value.
    void t_ConvertBytes(int type, bool isAsync, const TByteArray& payload, GVariant*& pValue) const;
    /// Writes a reply envelope (result, output) as a new floating "(ay)" value.
    void t_ConvertBytes(const TByteArray& output, bool result, GVariant*& pValue) const;
    /// Reads a reply envelope; one that is empty is reported and leaves the outputs unchanged.
    void t_ConvertBytes(GVariant* pValue, bool& result, TByteArray& output) const;
    /// Reads a request envelope; one of fewer than 5 bytes is reported and leaves the outputs
    /// unchanged.
    void t_ConvertBytes(GVariant* pValue, int& type, bool& isAsync, TByteArray& payload) const;

    static const char* const t_dbusHelloMethod;
    static const char* const t_dbusSendMethod;
    static const char* const t_interfaceName;

    const char* t_busName;
    const char* t_objectPath;
    std::atomic<bool> t_isReady;
    TCSharedMutex t_callbacksMutex;
    std::map<int, TMessageCallback> t_callbacks QOR_GUARDED_BY(t_callbacksMutex);
    /// Guards the members that change with each message, or with the bus.
    TCSharedMutex t_stateMutex;
    /// Guards the registrations with GLib: the object, and watches.
    TCSharedMutex t_watchMutex;
    TSessionPtr t_pSession QOR_GUARDED_BY(t_stateMutex);
    /// Those of the session.
    TGlibPtr<GDBusConnection> t_pConnection QOR_GUARDED_BY(t_stateMutex);
    std::string t_uniqueName QOR_GUARDED_BY(t_stateMutex);
    std::string t_startError; ///< Why there was no bus at the start; set by t_Connect, once.
    std::string t_currentSender QOR_GUARDED_BY(t_stateMutex);
    bool t_isCurrentMessageAsync QOR_GUARDED_BY(t_stateMutex);
    TGlibPtr<GMainContext> t_pMainContext; ///< Where handlers run; set by t_Connect, once.

private:
    friend class TCDbusEntry;

    static void m_HandleMethodCall(GDBusConnection* pConnection, const char* sender,
                                   const char* objectPath, const char* interfaceName,
                                   const char* methodName, GVariant* pParameters,
                                   GDBusMethodInvocation* pInvocation, void* pUserData);
    void m_HandleMethodCall(GDBusMethodInvocation* pInvocation);
    void m_HandleMessage(const char* sender, GVariant* pParameters,
                         GDBusMethodInvocation* pInvocation);

    void m_Handle(std::function<void()> work, GDBusMessage* pCall, bool isNested);
    void m_HandleNext();
    static int m_NextTurn(void* pUserData);

    static const char* const m_interfaceXml;
    static const GDBusInterfaceVTable m_interfaceVtable;

    TGlibPtr<GDBusNodeInfo> m_pNodeInfo;
    unsigned int m_registrationId QOR_GUARDED_BY(t_watchMutex);
    TSessionPtr m_pExportedOn QOR_GUARDED_BY(t_watchMutex);
    std::map<std::string, TMethodHandler> m_methodHandlers; ///< Complete before the export.
    std::unique_ptr<TCDbusTurns> m_pTurns;                  ///< Messages that wait to be handled.
    std::unique_ptr<TCDbusTimer> m_pNextTurn;               ///< For those that are left.
    TSDbusLink* m_pLink;
};

} // namespace qor

#endif
