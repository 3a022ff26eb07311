// How an endpoint handles incoming calls, in turns.
#include <qor/QORDbus.h>

#include <cstring>
#include <utility>

#include <gio/gio.h>

#include "QORDbusContext.h"
#include "QORDbusLink.h"
#include "QORDbusSession.h"
#include "QORDbusTurns.h"
#include "QOREnvelope.h"
#include "QORLocks.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCDbus"

namespace qor
{

namespace
{

// How often calls that wait are tried, where nothing says that they may be handled.
constexpr unsigned int WAITING_CALLS_MS = 1000;

} // namespace

void TCDbus::m_HandleMethodCall(GDBusConnection* pConnection, const char* /*sender*/,
                                const char* /*objectPath*/, const char* /*interfaceName*/,
                                const char* /*methodName*/, GVariant* /*pParameters*/,
                                GDBusMethodInvocation* pInvocation, void* pUserData)
{
    const boost::shared_ptr<GDBusMethodInvocation> pOwned(pInvocation, TSGlibRelease());
    const TCDbusEntry entry(pUserData);
    if (entry.Endpoint() == nullptr || pConnection == nullptr)
    {
        QOR_LOG_ERROR("Connection %p, user_data %p", static_cast<void*>(pConnection),
                      static_cast<void*>(entry.Endpoint()));
        return;
    }
    entry.Run<TCDbus>([pOwned](TCDbus& dbus) { dbus.m_HandleMethodCall(pOwned.get()); },
                      g_dbus_method_invocation_get_message(pInvocation));
}

void TCDbus::m_HandleMethodCall(GDBusMethodInvocation* pInvocation)
{
    if (std::strcmp(g_dbus_method_invocation_get_object_path(pInvocation), t_objectPath) != 0)
    {
        return;
    }
    g_object_ref(pInvocation); // which the answer takes over
    const char* methodName = g_dbus_method_invocation_get_method_name(pInvocation);
    const auto handler = m_methodHandlers.find(methodName);
    if (handler == m_methodHandlers.end())
    {
        QOR_LOG_DEBUG("No message handler for %s", methodName);
        g_dbus_method_invocation_return_value(pInvocation, nullptr);
        return;
    }
    QOR_LOG_DEBUG("->Invoke message handler %s", methodName);
    handler->second(g_dbus_method_invocation_get_sender(pInvocation),
                    g_dbus_method_invocation_get_parameters(pInvocation), pInvocation);
}

// Work that arrives while a callback iterates the main context waits until the callback has
// returned.
void TCDbus::m_Handle(std::function<void()> work, GDBusMessage* pCall, bool isNested)
{
    if (pCall != nullptr)
    {
        m_pTurns->AddCall(pCall, std::move(work));
    }
    else
    {
        m_pTurns->Add(std::move(work));
    }
    if (isNested)
    {
        return; // the outer one sees to it
    }
    if (m_pTurns->IsRoundOver())
    {
        m_pNextTurn->SetIn(0);
    }
    else
    {
        m_HandleNext();
    }
}

// One in a turn of the main context: under steady traffic the context's other work, such as the end
// of its loop, has its turn as well.
void TCDbus::m_HandleNext()
{
    if (t_IsSevered())
    {
        m_pTurns->Clear();
        return;
    }
    const TSessionPtr session = t_Session();
    m_pTurns->RunNext(session == nullptr ? nullptr : &session->Admission());
    if (m_pTurns->HasMore())
    {
        m_pNextTurn->SetIn(0);
    }
    else if (m_pTurns->HasWaiting())
    {
        m_pNextTurn->SetIn(WAITING_CALLS_MS);
    }
}

int TCDbus::m_NextTurn(void* pUserData)
{
    const TCDbusEntry entry(pUserData);
    if (entry.Endpoint() == nullptr || entry.IsNested()) // else the outer one sees to it
    {
        return G_SOURCE_CONTINUE;
    }
    if (!entry.Endpoint()->m_pTurns->HasMore())
    {
        entry.Endpoint()->m_pTurns->TryWaiting();
    }
    entry.Endpoint()->m_HandleNext();
    return G_SOURCE_CONTINUE;
}

void TCDbus::t_TryWaitingCalls()
{
    m_pTurns->TryWaiting();
    m_pNextTurn->SetIn(0);
}

void TCDbus::m_HandleMessage(const char* sender, GVariant* pParameters,
                             GDBusMethodInvocation* pInvocation)
{
    int type = 0;
    bool isAsync = false;
    TByteArray payload;
    TByteArray output;
    if (HasRequestHeader(pParameters) || m_pTurns->IsNewBurst())
    {
        t_ConvertBytes(pParameters, type, isAsync, payload);
    }
    {
        const TExclusiveLock lock(t_stateMutex);
        t_isCurrentMessageAsync = isAsync;
        t_currentSender = sender;
    }

    bool result = false;
    {
        const TSharedLock lock(t_callbacksMutex);
        const auto found = t_callbacks.find(type);
        if (found != t_callbacks.end())
        {
            result = found->second(payload, output);
        }
        else
        {
            QOR_LOG_DEBUG("Callback for type %d is not registered", type);
        }
    }

    if (t_Fits(output.size()))
    {
        GVariant* pReply = nullptr;
        t_ConvertBytes(output, result, pReply);
        g_dbus_method_invocation_return_value(pInvocation, pReply);
    }
    else
    {
        // Sending it would make the bus close our connection.
        g_dbus_method_invocation_return_error_literal(pInvocation, G_DBUS_ERROR,
                                                      G_DBUS_ERROR_LIMITS_EXCEEDED,
                                                      "The reply is too large for the bus");
    }

    const TExclusiveLock lock(t_stateMutex);
    t_currentSender.clear();
}

} // namespace qor
