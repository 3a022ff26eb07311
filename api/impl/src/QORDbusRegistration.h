// Announces a client's types to the service until the service has confirmed them.
//
// A busy service refuses a Hello like any other call. A client that did not notice this would never
// get events. So Hello is sent with an answer expected, and a timer repeats it.
#ifndef QOR_QORDBUSREGISTRATION_H
#define QOR_QORDBUSREGISTRATION_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>

#include <gio/gio.h>

#include <qor/GlibTypes.h>
#include <qor/Mutex.h>
#include <qor/Types.h>

#include "QORDbusContext.h"

namespace qor
{

class TCDbusCalls;

// Any thread may call it, and nothing waits. Calls on their way hold it: an answer may come when
// the endpoint has gone.
class TCDbusRegistration : public std::enable_shared_from_this<TCDbusRegistration>
{
public:
    // The timer is due when Hello is to be repeated, and when it has been confirmed.
    explicit TCDbusRegistration(std::unique_ptr<TCDbusTimer> pTimer);

    // The types to announce from now on.
    void SetTypes(const std::map<int, TMessageCallback>& callbacks) QOR_EXCLUDES(m_mutex);
    // Whether the types have changed since they were announced.
    bool HasNews() QOR_EXCLUDES(m_mutex);

    // Sends a Hello, given without arguments, with the present types; at the next answer, if many
    // have none.
    void Announce(TCDbusCalls& calls, GDBusMessage* pHello) QOR_EXCLUDES(m_mutex);

    // The service is a new one: forgets all announcements to the one before, and starts with the
    // first interval.
    void Restart() QOR_EXCLUDES(m_mutex);

    // Whether the last announcement is not confirmed yet; then also the code of the reason, if that
    // was not reported before.
    bool IsUnconfirmed(std::optional<int>& newReason) QOR_EXCLUDES(m_mutex);

    // Whether the service has confirmed the present types: returns true once for each announcement;
    // and whether that has been fetched.
    bool TakeConfirmation() QOR_EXCLUDES(m_mutex);
    bool IsConfirmationTaken() QOR_EXCLUDES(m_mutex);

    // Stops the timer.
    void Stop();

private:
    void m_Send(TCDbusCalls& calls, GDBusMessage* pHello) QOR_REQUIRES(m_mutex);
    void m_Answered(TCDbusCalls& calls, std::uint32_t number, GDBusMessage* pAnswer)
        QOR_EXCLUDES(m_mutex);
    void m_ResetIntervals() QOR_REQUIRES(m_mutex);

    const std::unique_ptr<TCDbusTimer> m_pTimer;
    TSPosixMutex m_mutex;
    TGlibPtr<GVariant> m_pTypes QOR_GUARDED_BY(m_mutex);
    std::uint32_t m_number QOR_GUARDED_BY(m_mutex);         // of the last announcement
    std::uint32_t m_firstNumber QOR_GUARDED_BY(m_mutex);    // of those to this service
    std::size_t m_unanswered QOR_GUARDED_BY(m_mutex);       // of those
    bool m_isOverdue QOR_GUARDED_BY(m_mutex);               // the next one is sent however many are
    TGlibPtr<GDBusMessage> m_pHeld QOR_GUARDED_BY(m_mutex); // the next one
    bool m_hasNews QOR_GUARDED_BY(m_mutex);
    bool m_isConfirmed QOR_GUARDED_BY(m_mutex);
    bool m_isConfirmationTaken QOR_GUARDED_BY(m_mutex);
    bool m_isReasonTold QOR_GUARDED_BY(m_mutex);
    int m_reason QOR_GUARDED_BY(m_mutex);              // of the last refusal
    unsigned int m_pauseMs QOR_GUARDED_BY(m_mutex);    // after a refusal
    unsigned int m_patienceMs QOR_GUARDED_BY(m_mutex); // with no answer at all
};

} // namespace qor

#endif
