// The filter of a connection: sees every message before GDBus does.
#include "QORDbusFilter.h"

#include <utility>

#include "QORDbusAdmission.h"
#include "QORDbusCalls.h"
#include "QORDbusContext.h"

namespace qor
{

TCDbusFilter::TCDbusFilter(GDBusConnection* pConnection, TGlibPtr<GMainContext> pContext,
                           TCDbusAdmission& admission, TCDbusCalls& calls)
    : m_pConnection(pConnection),
      m_pContext(std::move(pContext)),
      m_admission(admission),
      m_calls(calls),
      m_id(0),
      m_hasLeft(false)
{
    const TCThreadDefaultContext context(m_pContext.get());
    m_id = g_dbus_connection_add_filter(m_pConnection, &TCDbusFilter::m_Filter, this,
                                        &TCDbusFilter::m_HasLeft);
}

// The worker may be inside the filter when it is removed. GLib calls the free function when no
// thread is inside: at once, or from the context that was the thread's default when the filter was
// added. After this, the worker runs no code of the library, which may be unloaded.
TCDbusFilter::~TCDbusFilter()
{
    g_dbus_connection_remove_filter(m_pConnection, m_id);
    while (!m_hasLeft)
    {
        g_main_context_iteration(m_pContext.get(), TRUE);
    }
    // A connection that was made in this context and has closed is held by its own last signal.
    while (g_main_context_iteration(m_pContext.get(), FALSE))
    {
    }
}

void TCDbusFilter::m_HasLeft(void* pFilter)
{
    static_cast<TCDbusFilter*>(pFilter)->m_hasLeft = true;
}

GDBusMessage* TCDbusFilter::m_Filter(GDBusConnection* /*pConnection*/, GDBusMessage* pMessage,
                                     int isIncoming, void* pFilter)
{
    auto& filter = *static_cast<TCDbusFilter*>(pFilter);
    bool isTaken = false;
    switch (g_dbus_message_get_message_type(pMessage))
    {
    case G_DBUS_MESSAGE_TYPE_METHOD_RETURN:
    case G_DBUS_MESSAGE_TYPE_ERROR:
        if (isIncoming)
        {
            isTaken = filter.m_calls.TakeAnswer(pMessage);
        }
        else
        {
            filter.m_admission.NoteAnswer(pMessage);
        }
        break;
    case G_DBUS_MESSAGE_TYPE_METHOD_CALL:
        if (isIncoming)
        {
            isTaken = !filter.m_admission.Admit(pMessage);
        }
        else
        {
            filter.m_calls.NoteSent(pMessage);
        }
        break;
    default:
        break;
    }
    if (isTaken)
    {
        g_object_unref(pMessage);
        return nullptr;
    }
    return pMessage;
}

} // namespace qor
