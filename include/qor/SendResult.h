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

/// What became of a message.
///
/// After ANSWERED_TRUE and ANSWERED_FALSE the service has handled it. After NO_SERVICE, FORBIDDEN,
/// TOO_LARGE and LIMIT it has not. After the others nobody knows: the answer may have been lost, or
/// be still to come.
enum class ESendStatus
{
    ANSWERED_TRUE,  ///< The service's callback returned true.
    ANSWERED_FALSE, ///< It returned false, or the service has no callback for the type.
    NO_SERVICE,     ///< Nobody owns the service's name, and the bus could not start it.
    NO_ANSWER,      ///< None in time; or the service left the bus before it had answered.
    FORBIDDEN,      ///< The bus does not let this process send to the service.
    TOO_LARGE,      ///< It does not fit into one bus message; it was not sent.
    LIMIT,          ///< Too much of this process, or of its user, is waiting already.
    NO_BUS,         ///< There is no connection to the bus, or it closed before the answer came.
    CANCELLED,      ///< The caller did not want to wait any longer.
    FAILED          ///< Anything else; the text says what.
};

/// The outcome of one message.
struct TSSendResult
{
    ESendStatus m_status = ESendStatus::FAILED; ///< What became of it.

    /// The number of the GLib error, which the log shows as "errno"; 0 after an answer.
    int m_code = 0;

    /// Why not, for people: one line of printable UTF-8, at most 1000 bytes; empty after an answer.
    /// An error that came over the bus begins with its D-Bus name; the words after it are the
    /// sender's.
    std::string m_text;

    /// The output bytes of the service's callback; empty without an answer.
    TByteArray m_response;
};

/// Takes the result of an asynchronous send. It must not throw.
using TSendCallback = std::function<void(const TSSendResult&)>;

/// The outcome of a call of a method of another interface than the channel's.
struct TSMethodResult
{
    /// ANSWERED_TRUE where the method has returned. An error of the service's own is FAILED. The
    /// response stays empty.
    TSSendResult m_send;

    std::string m_sender;       ///< Unique name of who has answered: service or bus; or empty.
    std::string m_errorName;    ///< Of the error that came over the bus; else empty.
    TGlibPtr<GVariant> m_pBody; ///< What the method has returned, a tuple; null without an answer.
};

/// Takes the result of an asynchronous call of a method. It must not throw.
using TMethodCallback = std::function<void(const TSMethodResult&)>;

/// The caller's word that nobody waits for a message any more. Copies share one state; one handle
/// may be given to any number of messages. Never blocks; any thread may use it. What the service
/// has been sent by then is not taken back.
class QOR_API TCCancellation
{
public:
    /// Not cancelled.
    TCCancellation();

    /// From here on, and for good, messages with this handle end with CANCELLED: those that wait
    /// within about 100 ms, later ones at once and unsent.
    void Cancel();

    /// Whether any of the copies has been cancelled.
    bool IsCancelled() const;

private:
    std::shared_ptr<std::atomic<bool>> m_isCancelled;
};

} // namespace qor

#endif
