// A second participant on the bus that speaks the wire format byte by byte.
#ifndef QORTEST_RAWPEER_H
#define QORTEST_RAWPEER_H

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace qortest
{

using Bytes = std::vector<unsigned char>;

constexpr const char* SERVICE_NAME = "com.norvane.qor.IControl";
constexpr const char* SERVICE_PATH = "/com/norvane/qor/CommunicationChannel";
constexpr const char* TEST_SERVICE_NAME = "com.norvane.qor.IControlTest";
constexpr const char* TEST_SERVICE_PATH = "/com/norvane/qor/CommunicationChannelTest";
constexpr const char* INTERFACE_NAME = "com.norvane.qor.IControl";

/// A request envelope and a Hello event list, built apart from the code under test.
Bytes Request(std::int32_t type, bool isAsync, const Bytes& payload = {});
Bytes EventList(const std::vector<std::int32_t>& types);

/// A method call that a peer has received.
struct IncomingCall
{
    std::string sender;
    std::string path;
    std::string interfaceName;
    std::string method;
    std::string signature; // of all arguments: "ay"
    Bytes bytes;
};

/// What a peer does with a call.
struct Answer
{
    enum EKind
    {
        REPLY,      // with the bytes
        ERROR,      // with the error name
        WRONG_TYPE, // a reply that holds a string
        NO_VALUE,   // a reply without any argument
        NEVER,      // the call stays unanswered
        HOLD,       // answered later, by AnswerHeld
        LEAVE       // the connection breaks
    };

    EKind kind = REPLY;
    Bytes bytes;
    std::string errorName = "org.freedesktop.DBus.Error.Failed";
};

/// What came back for a call of the peer's own.
struct CallResult
{
    bool ok = false;
    Bytes bytes;           // of the reply's byte array, if it has one
    std::string signature; // of the reply: "(ay)"
    std::string errorName; // if not ok, the remote error's name, else empty
    int errorCode = 0;     // if not ok, the GLib error's code
};

/// A separate private connection to the bus at DBUS_SYSTEM_BUS_ADDRESS. It needs no main context:
/// calls are recorded and answered as they arrive, on GDBus's own thread. Send and Hello at any
/// path are answered; the answer to Hello is always an empty reply.
class RawPeer
{
public:
    RawPeer();
    ~RawPeer();

    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    const std::string& UniqueName() const;

    /// Asks the bus for a well-known name; true if this peer owns it now.
    bool OwnName(const std::string& name);
    bool ReleaseName(const std::string& name);

    /// The answer to every Send from now on; at first a reply of the single byte 1.
    void AnswerWith(const Answer& answer);

    /// Asks a function for every answer. It runs on GDBus's thread and must not wait for anything.
    void AnswerUsing(const std::function<Answer(const IncomingCall&)>& answer);

    /// Answers the calls that are on hold.
    void AnswerHeld(const Answer& answer);

    /// The calls received so far, in order; of one method only if given.
    std::vector<IncomingCall> Calls(const std::string& method = "") const;
    std::size_t Count(const std::string& method) const;
    void ForgetCalls();

    /// Waits until that many calls of the method have come, iterating nothing; false after the
    /// watchdog.
    bool WaitForCalls(const std::string& method, std::size_t count, int watchdogMs = 30000) const;

    /// Calls a method with one byte array and waits, iterating nothing: the receiver must be
    /// dispatched by somebody else.
    CallResult Call(const std::string& destination, const std::string& path,
                    const std::string& method, const Bytes& bytes, int timeoutMs = 30000);

    /// The same without waiting here. The future is ready when the reply has come.
    std::future<CallResult> StartCall(const std::string& destination, const std::string& path,
                                      const std::string& method, const Bytes& bytes,
                                      int timeoutMs = 30000);

    /// Calls and drops the reply.
    void Post(const std::string& destination, const std::string& path, const std::string& method,
              const Bytes& bytes);

    /// Announces types to a service at the normal path, without waiting.
    void PostHello(const std::string& destination, const std::vector<std::int32_t>& types);

    /// Waits until everything sent so far has reached the bus daemon.
    void Sync();

    /// Breaks the connection, as if the process had died.
    void Leave();

private:
    struct State;

    std::shared_ptr<State> m_pState;
};

} // namespace qortest

#endif
