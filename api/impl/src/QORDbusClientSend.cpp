// The messages that a client sends to the service.
#include <qor/QORDbusClient.h>

#include <utility>

#include <gio/gio.h>

#include "QORBusConnection.h"
#include "QORDbusMessage.h"
#include "QORDbusPending.h"
#include "QORDbusSession.h"
#include "QORGlibError.h"
#include "QORLog.h"
#include "QORSendResult.h"

#define QOR_LOG_CLASS "qor::TCDbusClient"

namespace qor
{

namespace
{

constexpr int SEND_TIMEOUT_MS = 10000;
constexpr int DEFAULT_TIMEOUT = -1;

} // namespace

bool TCDbusClient::SendMessage(int type, const TByteArray& data, TByteArray& response, bool isAsync)
{
    if (!t_IsInOwnProcess())
    {
        return false;
    }
    const TSessionPtr session = m_FindBus(NO_DEADLINE, TCCancellation());
    m_PrepareSend(session, !isAsync);
    if (isAsync)
    {
        return m_SendAndForget(session, type, data);
    }
    const std::int64_t deadline = m_Deadline(SEND_TIMEOUT_MS);
    TCGlibError error;
    const auto pAnswer = m_CallAndWait(
        session, data.size(), [&] { return m_NewSend(type, false, data); }, deadline,
        TCCancellation(), true, error.Out());
    TSSendResult result;
    result.m_response.swap(response); // stays as it is without a reply
    m_TakeAnswer(pAnswer.get(), error.Get(), result);
    result.m_response.swap(response);
    return result.m_status == ESendStatus::ANSWERED_TRUE;
}

TSSendResult TCDbusClient::Call(int type, const TByteArray& data, int timeoutMs,
                                const TCCancellation& cancellation, bool mayStart)
{
    TSSendResult result;
    if (!t_IsInOwnProcess())
    {
        m_FailInChild(result);
        return result;
    }
    const std::int64_t deadline = m_Deadline(timeoutMs);
    const TSessionPtr session = m_BeginCall(deadline, cancellation, mayStart);
    TCGlibError error;
    const auto pAnswer = m_CallAndWait(
        session, data.size(), [&] { return m_NewSend(type, false, data); }, deadline, cancellation,
        mayStart, error.Out());
    m_TakeAnswer(pAnswer.get(), error.Get(), result);
    return result;
}

void TCDbusClient::CallAsync(int type, const TByteArray& data, int timeoutMs,
                             const TCCancellation& cancellation, const TSendCallback& onDone,
                             GMainContext* pContext)
{
    // The endpoint is there until the outcome has been told, unless onDone itself lets go of it.
    const auto onOutcome = [this, onDone](GDBusMessage* pAnswer, const GError* pReason)
    {
        TSSendResult result;
        m_TakeAnswer(pAnswer, pReason, result);
        onDone(result);
    };
    m_CallAsync(
        data.size(), [&] { return m_NewSend(type, true, data); }, m_Deadline(timeoutMs),
        cancellation, onOutcome, pContext);
}

std::int64_t TCDbusClient::m_Deadline(int timeoutMs)
{
    const int milliseconds = timeoutMs < 0 ? SEND_TIMEOUT_MS : timeoutMs;
    return g_get_monotonic_time() + milliseconds * G_TIME_SPAN_MILLISECOND;
}

void TCDbusClient::m_FailInChild(TSSendResult& result)
{
    result.m_status = ESendStatus::NO_BUS;
    result.m_text = "The process was forked from one that uses the bus";
}

TCDbus::TSessionPtr TCDbusClient::m_BeginCall(std::int64_t deadline,
                                              const TCCancellation& cancellation, bool mayStart)
{
    if (cancellation.IsCancelled())
    {
        return nullptr;
    }
    TSessionPtr session = m_FindBus(deadline, cancellation);
    m_PrepareSend(session, mayStart);
    return session;
}

void TCDbusClient::m_CallAsync(std::size_t size, const TMessageMaker& newCall,
                               std::int64_t deadline, const TCCancellation& cancellation,
                               const TOutcome& onOutcome, GMainContext* pContext)
{
    if (!t_IsInOwnProcess())
    {
        return;
    }
    TCDbusPending::TSRequest request;
    request.m_deadline = deadline;
    request.m_cancellation = cancellation;
    request.m_pContext.reset(
        g_main_context_ref(pContext == nullptr ? g_main_context_default() : pContext));
    request.m_session = t_Session();
    if (!cancellation.IsCancelled())
    {
        m_PrepareSend(request.m_session, true);
    }
    GError* pError = nullptr;
    if (m_IsSendable(size, cancellation, &pError))
    {
        m_hasSentAsync = true;
        request.m_pMessage = newCall();
    }
    request.m_pError.reset(pError);
    request.m_onOutcome = onOutcome;
    m_pPending->Start(std::move(request));
}

void TCDbusClient::m_PrepareSend(const TSessionPtr& session, bool withHello)
{
    if (t_isReady)
    {
        return;
    }
    QOR_LOG_DEBUG("Connection is not ready");
    // The bus starts a service that is not running, which then learns our types at once; not before
    // it can call us, while the bus has just been found again.
    if (withHello && (!m_IsStarted() || t_IsExportedOn(session)))
    {
        m_SendHello(true);
    }
}

// Whether a message can go out; otherwise with an error.
bool TCDbusClient::m_IsSendable(std::size_t size, const TCCancellation& cancellation,
                                GError** ppError) const
{
    if (cancellation.IsCancelled())
    {
        g_set_error_literal(ppError, G_IO_ERROR, G_IO_ERROR_CANCELLED, "Operation was cancelled");
        return false;
    }
    if (!t_Fits(size))
    {
        // The bus would close the connection on it.
        g_set_error_literal(ppError, G_IO_ERROR, G_IO_ERROR_MESSAGE_TOO_LARGE,
                            "The message is too large for the bus");
        return false;
    }
    if (!m_IsStarted())
    {
        g_set_error_literal(ppError, G_IO_ERROR, G_IO_ERROR_NOT_CONNECTED,
                            t_startError.empty() ? "There is no connection to the bus"
                                                 : t_startError.c_str());
        return false;
    }
    return true;
}

// Calls go to the service's well-known name, not to the owner that the proxy has last heard of: the
// proxy learns of a restarted service only while the main context is iterated, but sends must work
// without that. If the start has failed, nothing is sent.
bool TCDbusClient::m_SendAndForget(const TSessionPtr& session, int type, const TByteArray& data)
{
    if (!t_Fits(data.size()))
    {
        QOR_LOG_ERROR("Sending message error, errno %d", G_IO_ERROR_MESSAGE_TOO_LARGE);
        return false;
    }
    if (m_IsStarted())
    {
        m_hasSentAsync = true;
        GVariant* pRequest = nullptr; // floating: the call takes it over
        t_ConvertBytes(type, true, data, pRequest);
        g_dbus_connection_call(session->Connection(), t_busName, t_objectPath, t_interfaceName,
                               t_dbusSendMethod, pRequest, nullptr, G_DBUS_CALL_FLAGS_NONE,
                               DEFAULT_TIMEOUT, nullptr, nullptr, nullptr);
    }
    return true;
}

// GLib checks each header that is set, but no header that is copied.
TGlibPtr<GDBusMessage> TCDbusClient::m_NewSend(int type, bool isAsync, const TByteArray& data) const
{
    GVariant* pRequest = nullptr;
    t_ConvertBytes(type, isAsync, data, pRequest);
    TGlibPtr<GDBusMessage> pCall(g_dbus_message_copy(m_pSend.get(), nullptr));
    g_dbus_message_set_body(pCall.get(), pRequest);
    return pCall;
}

// Takes over floating arguments.
TGlibPtr<GDBusMessage> TCDbusClient::m_NewMethodCall(const char* interfaceName,
                                                     const char* methodName,
                                                     GVariant* pArguments) const
{
    TGlibPtr<GDBusMessage> pCall(
        g_dbus_message_new_method_call(t_busName, t_objectPath, interfaceName, methodName));
    if (pArguments != nullptr)
    {
        g_dbus_message_set_body(pCall.get(), pArguments);
    }
    return pCall;
}

// The answer is picked up on the way in. g_dbus_connection_call_sync would make a main context, and
// with it a file descriptor, for each call.
TGlibPtr<GDBusMessage> TCDbusClient::m_CallAndWait(const TSessionPtr& session, std::size_t size,
                                                   const TMessageMaker& newCall,
                                                   std::int64_t deadline,
                                                   const TCCancellation& cancellation,
                                                   bool mayStart, GError** ppError) const
{
    if (!m_IsSendable(size, cancellation, ppError))
    {
        return nullptr;
    }
    const TGlibPtr<GDBusMessage> pCall = newCall();
    if (!mayStart)
    {
        g_dbus_message_set_flags(pCall.get(), G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    }
    return session->Calls().CallAndWait(pCall.get(), deadline, cancellation, ppError);
}

// The response changes only if a reply has come.
void TCDbusClient::m_TakeAnswer(GDBusMessage* pAnswer, const GError* pError,
                                TSSendResult& result) const
{
    int code = 0;
    if (pAnswer == nullptr)
    {
        SetFailure(*pError, result);
    }
    else if (IsErrorReply(pAnswer, code))
    {
        SetFailure(pAnswer, code, result);
    }
    else
    {
        bool isTrue = true;
        t_ConvertBytes(g_dbus_message_get_body(pAnswer), isTrue, result.m_response);
        result.m_status = isTrue ? ESendStatus::ANSWERED_TRUE : ESendStatus::ANSWERED_FALSE;
        return;
    }
    m_LogFailure(result);
}

void TCDbusClient::m_LogFailure(const TSSendResult& result) const
{
    if (result.m_status == ESendStatus::CANCELLED)
    {
        QOR_LOG_DEBUG("Sending message was cancelled");
    }
    else if (!m_IsStarted() && result.m_status == ESendStatus::NO_BUS)
    {
        QOR_LOG_ERROR("pResult is NULL");
    }
    else
    {
        QOR_LOG_ERROR("Sending message error, errno %d", result.m_code);
    }
}

} // namespace qor
