// What became of a message to the service, and how to stop waiting for it.
#ifndef QOR_SENDRESULT_H
#define QOR_SENDRESULT_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include <qor/Export.h>
#include <qor/GlibTypes.h>
#include <qor/Types.h>

namespace qor
{

/// The outcome of a message.
///
/// After ANSWERED_TRUE and ANSWERED_FALSE the service has handled it. After NO_SERVICE, FORBIDDEN,
/// TOO_LARGE and LIMIT it has not. After the others the caller cannot know: the answer may be lost
/// or late.
enum class ESendStatus
{
    ANSWERED_TRUE,  ///< The service's callback returned true.
    ANSWERED_FALSE, ///< It returned false, or the service has no callback for the type.
    NO_SERVICE,     ///< Nobody owns the service's name, and the bus could not start it.
    NO_ANSWER,      ///< No answer in time; or the service left the bus before it had answered.
    FORBIDDEN,      ///< The bus does not let this process send to the service.
    TOO_LARGE,      ///< It does not fit into one bus message; it was not sent.
    LIMIT,          ///< Too many messages of this process, or of its user, are waiting already.
    NO_BUS,         ///< There is no connection to the bus, or it closed before the answer came.
    CANCELLED,      ///< The caller has cancelled it.
    FAILED          ///< Any other failure; the text says which.
};

/// The outcome of one message.
struct TSSendResult
{
    ESendStatus m_status = ESendStatus::FAILED; ///< The kind of outcome.

    /// The number of the GLib error, which the log shows as "errno"; 0 after an answer.
    int m_code = 0;

    /// The reason, for people: one line of printable UTF-8, at most 1000 bytes; empty after an
    /// answer. For an error from the bus it begins with the D-Bus name of the error; the sender of
    /// the error has written the words after it.
    std::string m_text;

    /// The output bytes of the service's callback; empty without an answer.
    TByteArray m_response;
};

/// Takes the result of an asynchronous send. It must not throw.
using TSendCallback = std::function<void(const TSSendResult&)>;

/// The outcome of a call of a method of another interface than the channel's.
struct TSMethodResult
{
    /// ANSWERED_TRUE if the method has returned. FAILED if the service has answered with an error
    /// of its own. The response stays empty.
    TSSendResult m_send;

    std::string m_sender;       ///< Unique name of the service or bus that has answered; or empty.
    std::string m_errorName;    ///< D-Bus name of the error that has come; else empty.
    TGlibPtr<GVariant> m_pBody; ///< The method's result, a tuple; null without an answer.
};

/// Takes the result of an asynchronous call of a method. It must not throw.
using TMethodCallback = std::function<void(const TSMethodResult&)>;

/// With it a caller cancels messages. Copies share one state; one handle may be given to any number
/// of messages. Never blocks; any thread may use it. Messages that have been sent already are not
/// taken back.
class QOR_API TCCancellation
{
public:
    /// Not cancelled.
    TCCancellation();

    /// Cancels all messages with this handle, also later ones: those that wait end with CANCELLED
    /// within about 100 ms, later ones at once, without being sent.
    void Cancel();

    /// Whether any of the copies has been cancelled.
    bool IsCancelled() const;

private:
    std::shared_ptr<std::atomic<bool>> m_isCancelled;
};

} // namespace qor

#endif
