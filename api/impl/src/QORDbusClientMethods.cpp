// Calls of methods that the service has beside the channel's.
#include <qor/QORDbusClient.h>

#include <gio/gio.h>

#include "QORDbusMessage.h"
#include "QORDbusSession.h"
#include "QORGlibError.h"
#include "QORLog.h"
#include "QORSendResult.h"

#define QOR_LOG_CLASS "qor::TCDbusClient"

namespace qor
{

namespace
{

// Owned from here on, whether or not they are sent.
TGlibPtr<GVariant> Own(GVariant* pArguments)
{
    return TGlibPtr<GVariant>(pArguments == nullptr ? nullptr : g_variant_ref_sink(pArguments));
}

std::size_t SizeOf(const TGlibPtr<GVariant>& pArguments)
{
    return pArguments == nullptr ? 0 : g_variant_get_size(pArguments.get());
}

} // namespace

TSMethodResult TCDbusClient::CallMethod(const std::string& interfaceName,
                                        const std::string& methodName, GVariant* pArguments,
                                        int timeoutMs, const TCCancellation& cancellation,
                                        bool mayStart)
{
    const auto pOwned = Own(pArguments);
    if (!t_IsInOwnProcess())
    {
        TSMethodResult result;
        m_FailInChild(result.m_send);
        return result;
    }
    const std::int64_t deadline = m_Deadline(timeoutMs);
    const TSessionPtr session = m_BeginCall(deadline, cancellation, mayStart);
    TCGlibError error;
    const auto pAnswer = m_CallAndWait(
        session, SizeOf(pOwned),
        [&] { return m_NewMethodCall(interfaceName.c_str(), methodName.c_str(), pOwned.get()); },
        deadline, cancellation, mayStart, error.Out());
    return m_TakeMethodAnswer(pAnswer.get(), error.Get());
}

void TCDbusClient::CallMethodAsync(const std::string& interfaceName, const std::string& methodName,
                                   GVariant* pArguments, int timeoutMs,
                                   const TCCancellation& cancellation,
                                   const TMethodCallback& onDone, GMainContext* pContext)
{
    const auto pOwned = Own(pArguments);
    m_CallAsync(
        SizeOf(pOwned),
        [&] { return m_NewMethodCall(interfaceName.c_str(), methodName.c_str(), pOwned.get()); },
        m_Deadline(timeoutMs), cancellation,
        [this, onDone](GDBusMessage* pAnswer, const GError* pReason)
        { onDone(m_TakeMethodAnswer(pAnswer, pReason)); },
        pContext);
}

TSMethodResult TCDbusClient::m_TakeMethodAnswer(GDBusMessage* pAnswer, const GError* pError) const
{
    TSMethodResult result;
    int code = 0;
    if (pAnswer == nullptr)
    {
        SetFailure(*pError, result.m_send);
        m_LogFailure(result.m_send);
        return result;
    }
    const char* sender = g_dbus_message_get_sender(pAnswer);
    result.m_sender = sender == nullptr ? "" : sender;
    if (IsErrorReply(pAnswer, code))
    {
        const char* name = g_dbus_message_get_error_name(pAnswer);
        result.m_errorName = name == nullptr ? "" : name;
        SetFailure(pAnswer, code, result.m_send);
        QOR_LOG_DEBUG("The answer is the error %s", result.m_errorName.c_str());
        return result;
    }
    result.m_send.m_status = ESendStatus::ANSWERED_TRUE;
    GVariant* pBody = g_dbus_message_get_body(pAnswer);
    result.m_pBody.reset(pBody == nullptr ? g_variant_ref_sink(g_variant_new_tuple(nullptr, 0))
                                          : g_variant_ref(pBody));
    return result;
}

} // namespace qor
