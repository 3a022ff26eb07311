// The answers to the calls of an event, and their outcomes.
#include "QOREventDelivery.h"

#include <cstring>
#include <utility>

#include "QORBusConnection.h"
#include "QORDbusMessage.h"
#include "QOREnvelope.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbusServer" // whose events these are

namespace qor
{

namespace
{

// Of one event; clients that leave or do not answer decide how many there would be.
constexpr std::size_t MAX_ERROR_LINES = 8;

} // namespace

// On the worker thread: the message goes away here.
TCEventDelivery::TSAnswer TCEventDelivery::m_Read(GDBusMessage* pMessage)
{
    TSAnswer answer;
    if (IsErrorReply(pMessage, answer.m_code))
    {
        answer.m_isError = true;
        const char* sender = g_dbus_message_get_sender(pMessage);
        const bool isFromBus = sender != nullptr && std::strcmp(sender, BUS_NAME) == 0;
        answer.m_isLeaving = isFromBus && answer.m_code == G_DBUS_ERROR_NO_REPLY;
        answer.m_isNobody = isFromBus && (answer.m_code == G_DBUS_ERROR_SERVICE_UNKNOWN ||
                                          answer.m_code == G_DBUS_ERROR_NAME_HAS_NO_OWNER);
        return answer;
    }
    GVariant* pBody = g_dbus_message_get_body(pMessage);
    answer.m_isEmpty = pBody == nullptr;
    answer.m_isReadable = !answer.m_isEmpty && ReadReplyResult(pBody, answer.m_result);
    return answer;
}

void TCEventDelivery::m_Answered(std::uint32_t serial, const TSAnswer& answer)
{
    const auto found = m_bySerial.find(serial);
    if (found == m_bySerial.end())
    {
        return;
    }
    const TCall call = found->second;
    const std::string& name = call->m_pAccount->m_name;
    if (answer.m_isNobody)
    {
        m_Tell([&name](TSNews& news) { news.m_gone.push_back(name); });
    }
    if (call->m_pEvent != nullptr)
    {
        if (answer.m_isError)
        {
            m_Fail(call,
                   answer.m_isNobody || answer.m_isLeaving ? EDelivery::LEFT : EDelivery::FAILED,
                   answer.m_code);
        }
        else
        {
            m_Store(call, m_Judge(answer, name.c_str()) ? EDelivery::DELIVERED
                                                        : EDelivery::ANSWERED_FALSE);
        }
    }
    call->m_pAccount->m_unconfirmed.clear();
    const bool isThere = !answer.m_isNobody && !answer.m_isLeaving;
    const std::pair<std::string, int> resumed(name, call->m_type); // the call goes
    if (m_End(call) && isThere)
    {
        m_Tell([&resumed](TSNews& news) { news.m_resumed.push_back(resumed); });
    }
}

bool TCEventDelivery::m_Judge(const TSAnswer& answer, const char* name)
{
    if (answer.m_isEmpty)
    {
        QOR_LOG_DEBUG("Result is null");
    }
    else if (!answer.m_isReadable)
    {
        QOR_ASSERT_FAILED();
    }
    if (!answer.m_result)
    {
        QOR_LOG_DEBUG("Sending message to %s failed", name);
    }
    return answer.m_result;
}

void TCEventDelivery::m_Fail(TCall call, EDelivery outcome, int code)
{
    if (call->m_pEvent == nullptr)
    {
        return;
    }
    ++call->m_pEvent->m_errors;
    if (call->m_pEvent->m_errors <= MAX_ERROR_LINES)
    {
        QOR_LOG_ERROR("Sending message from %s error, errno %d", call->m_pAccount->m_name.c_str(),
                      code);
    }
    m_Store(call, outcome, code);
}

// A call that has not been started ends with that.
void TCEventDelivery::m_Store(TCall call, EDelivery outcome, int code)
{
    m_deadlines.erase(call->m_deadline);
    call->m_deadline = m_deadlines.end();
    TSDelivery& delivery = call->Delivery();
    delivery.m_outcome = outcome;
    delivery.m_code = code;
    const TSEventPtr pEvent = std::move(call->m_pEvent);
    if (call->m_serial == 0)
    {
        call->m_pAccount->m_pUser->m_waiting.erase(call);
    }
    --pEvent->m_open;
    if (pEvent->m_open == 0)
    {
        if (pEvent->m_errors > MAX_ERROR_LINES)
        {
            QOR_LOG_ERROR("Sending message error: %zu more", pEvent->m_errors - MAX_ERROR_LINES);
        }
        pEvent->m_onDone(pEvent);
    }
}

// The client has answered, or has left: the slot is free. Returns whether the client could not be
// called for the type before, and now can.
bool TCEventDelivery::m_End(TCall call)
{
    bool isResumed = false;
    TSEventAccount& account = *call->m_pAccount;
    --account.m_unanswered;
    --account.m_pUser->m_unanswered;
    if (call->m_isOverdue)
    {
        --account.m_overdue;
        --account.m_pUser->m_overdue;
        --m_overdue;
        isResumed = account.Resume(call->m_type);
    }
    m_bySerial.erase(call->m_serial);
    m_started.erase(call);
    return isResumed;
}

} // namespace qor
