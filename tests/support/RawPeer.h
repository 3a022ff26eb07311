// A second participant on the bus: what it is asked, and what it answers.
#ifndef QORTEST_RAWPEER_H
#define QORTEST_RAWPEER_H

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "RawCaller.h"

namespace qortest
{

/// A method call that a peer has received.
struct IncomingCall
{
    std::string sender;
    std::string path;
    std::string method;
    std::string signature; // of all arguments: "ay"
    Bytes bytes;
    bool mayStart; // the service, where it is not running
};

/// What a peer does with a call.
struct Answer
{
    enum EKind
    {
        REPLY,      // with the bytes
        ERROR,      // with the error name, and the bytes or "test" for its text
        WRONG_TYPE, // a reply that holds more than the bytes
        NO_VALUE,   // a reply without any argument
        NEVER,      // the call stays unanswered
        HOLD,       // answered later, by AnswerHeld
        LEAVE       // the connection breaks
    };

    EKind kind = REPLY;
    Bytes bytes;
    std::string errorName = "org.freedesktop.DBus.Error.Failed";
};

inline const Answer YES{Answer::REPLY, {1}, ""};
inline const Answer NO{Answer::REPLY, {0}, ""};
inline const Answer NEVER{Answer::NEVER, {}, ""};
inline const Answer HOLD{Answer::HOLD, {}, ""};
inline const Answer LEAVE{Answer::LEAVE, {}, ""};
inline const Answer NO_VALUE{Answer::NO_VALUE, {}, ""};

inline Answer DbusError(const std::string& name)
{
    return {Answer::ERROR, {}, "org.freedesktop.DBus.Error." + name};
}

/// Calls are recorded and answered as they arrive, on GDBus's own thread. Send and Hello at any
/// path are answered; Hello with an empty reply, unless somebody else decides on it.
class RawPeer : public RawCaller
{
public:
    using TAnswerer = std::function<Answer(const IncomingCall&)>;

    RawPeer() : m(std::make_shared<State>())
    {
        AnswerWith(YES);
        m->connection = m_connection.get();
        m_filter = g_dbus_connection_add_filter(
            m_connection.get(), &State::Filter, new std::shared_ptr<State>(m),
            [](gpointer pUserData) { delete static_cast<std::shared_ptr<State>*>(pUserData); });
    }

    ~RawPeer()
    {
        g_dbus_connection_remove_filter(m_connection.get(), m_filter);
    }

    /// The answer to every Send from now on, at first a reply of the single byte 1; or who decides
    /// on it. The function runs on GDBus's thread and must not wait for anything.
    void AnswerWith(const Answer& answer)
    {
        AnswerUsing([answer](const IncomingCall&) { return answer; });
    }

    void AnswerUsing(const TAnswerer& answerer)
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        m->answerer = answerer;
    }

    void AnswerHelloUsing(const TAnswerer& answerer)
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        m->greeter = answerer;
    }

    /// Answers calls of other interfaces, with a floating value, or with an error where it is null.
    using TMethods = std::function<GVariant*(const std::string& method)>;
    void AnswerMethodsUsing(const TMethods& methods)
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        m->methods = methods;
    }

    /// Answers the calls that are on hold.
    void AnswerHeld(const Answer& answer)
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        for (MessagePtr& message : std::exchange(m->held, {}))
        {
            m->Handle(std::move(message), answer);
        }
    }

    /// The calls received so far, in order; of one method only if given.
    std::vector<IncomingCall> Calls(const std::string& method = "") const
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        std::vector<IncomingCall> result;
        std::copy_if(m->calls.begin(), m->calls.end(), std::back_inserter(result),
                     [&](auto& call) { return method.empty() || call.method == method; });
        return result;
    }

    std::size_t Count(const std::string& method) const
    {
        return Calls(method).size();
    }

    void ForgetCalls()
    {
        const std::lock_guard<std::mutex> lock(m->mutex);
        m->calls.clear();
    }

    /// Waits until that many calls have come, iterating nothing; false after the watchdog.
    bool WaitForCalls(const std::string& method, std::size_t count) const
    {
        return WaitUntil([&] { return Count(method) >= count; });
    }

private:
    using MessagePtr = ObjectPtr<GDBusMessage>;

    struct State
    {
        GDBusConnection* connection = nullptr; // outlives its filter
        mutable std::mutex mutex;
        std::vector<IncomingCall> calls;
        TAnswerer answerer;
        TAnswerer greeter = [](const IncomingCall&) { return NO_VALUE; };
        TMethods methods;
        std::vector<MessagePtr> held;

        // Called with the mutex held.
        void Handle(MessagePtr call, const Answer& answer)
        {
            if (answer.kind == Answer::LEAVE)
            {
                Break(connection);
            }
            if (answer.kind == Answer::HOLD)
            {
                held.push_back(std::move(call));
            }
            if (answer.kind >= Answer::NEVER)
            {
                return;
            }
            const bool isError = answer.kind == Answer::ERROR;
            const std::string text(answer.bytes.begin(), answer.bytes.end());
            Reply(call,
                  answer.kind == Answer::REPLY        ? Wrap(answer.bytes)
                  : answer.kind == Answer::WRONG_TYPE ? g_variant_new("(^ays)", "\1", "more")
                                                      : nullptr,
                  isError ? answer.errorName : "", text.empty() ? "test" : text);
        }

        // With the body if there is one, or with the error if it has a name.
        void Reply(const MessagePtr& call, GVariant* pBody, const std::string& errorName,
                   const std::string& text = "test") const
        {
            const MessagePtr reply(errorName.empty()
                                       ? g_dbus_message_new_method_reply(call.get())
                                       : g_dbus_message_new_method_error_literal(
                                             call.get(), errorName.c_str(), text.c_str()));
            if (pBody != nullptr)
            {
                g_dbus_message_set_body(reply.get(), pBody);
            }
            g_dbus_connection_send_message(connection, reply.get(), G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                           nullptr, nullptr);
        }

        static GDBusMessage* Filter(GDBusConnection*, GDBusMessage* pMessage, gboolean isIncoming,
                                    gpointer pUserData)
        {
            if (!isIncoming ||
                g_dbus_message_get_message_type(pMessage) != G_DBUS_MESSAGE_TYPE_METHOD_CALL)
            {
                return pMessage;
            }
            const IncomingCall call{
                Text(g_dbus_message_get_sender(pMessage)),
                Text(g_dbus_message_get_path(pMessage)),
                Text(g_dbus_message_get_member(pMessage)),
                Text(g_dbus_message_get_signature(pMessage)),
                Unwrap(g_dbus_message_get_body(pMessage)),
                (g_dbus_message_get_flags(pMessage) & G_DBUS_MESSAGE_FLAGS_NO_AUTO_START) == 0};
            State& state = **static_cast<std::shared_ptr<State>*>(pUserData);
            const std::lock_guard<std::mutex> lock(state.mutex);
            state.calls.push_back(call);
            if (Text(g_dbus_message_get_interface(pMessage)) != INTERFACE_NAME)
            {
                if (!state.methods)
                {
                    return pMessage;
                }
                GVariant* const pValue = state.methods(call.method);
                state.Reply(MessagePtr(pMessage), pValue,
                            pValue == nullptr ? "com.norvane.qor.Error.NotStored" : "");
                return nullptr;
            }
            state.Handle(MessagePtr(pMessage),
                         (call.method == "Send" ? state.answerer : state.greeter)(call));
            return nullptr;
        }
    };

    std::shared_ptr<State> m; // which a call that is just coming in also holds
    guint m_filter = 0;
};

} // namespace qortest

#endif
