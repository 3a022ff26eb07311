// The clean stop of a service.
#ifndef QOR_QORDBUSSERVERSTOP_H
#define QOR_QORDBUSSERVERSTOP_H

#include <atomic>
#include <memory>
#include <utility>

#include <boost/function.hpp>

#include <glib.h>

#include <qor/QORDbusServer.h>

#include "QORDbusContext.h"

namespace qor
{

// Its progress. Used in the main context, except for the atomic members.
struct TCDbusServer::TSStop
{
    explicit TSStop(std::unique_ptr<TCDbusTimer> pTimer) : m_pTimer(std::move(pTimer)) {}

    std::unique_ptr<TCDbusTimer> m_pTimer; // due when it may go on
    std::atomic<bool> m_hasBegun{false};
    boost::function<void()> m_onStopped; // this and the next are set before the timer, once
    std::atomic<gint64> m_deadline{0};   // of the events, then of the bus; monotonic time
    bool m_isCancelled = false;
    bool m_isIdle = false; // no event is under way any more
    bool m_isFlushing = false;
    std::atomic<bool> m_isWritten{false};
    bool m_isLastTurn = false;
    bool m_isOver = false;
};

} // namespace qor

#endif
