// A connection to the bus, and what belongs to it: its name there, admission, our calls.
//
// An endpoint that has lost its bus and found it again replaces its session as a whole. Code that
// works with a session holds a pointer to it, and needs no lock.
#ifndef QOR_QORDBUSSESSION_H
#define QOR_QORDBUSSESSION_H

#include <string>

#include <gio/gio.h>

#include <qor/GlibTypes.h>

#include "QORDbusAdmission.h"
#include "QORDbusCalls.h"
#include "QORDbusFilter.h"

namespace qor
{

class TCDbusSession
{
public:
    // Calls to the path are subject to admission. The context must be the session's alone; it may
    // be the one that the connection was made in.
    TCDbusSession(TGlibPtr<GDBusConnection> pConnection, TGlibPtr<GMainContext> pContext,
                  const char* objectPath)
        : m_pConnection(std::move(pConnection)),
          m_uniqueName(g_dbus_connection_get_unique_name(m_pConnection.get())),
          m_admission(m_pConnection.get(), objectPath),
          m_calls(m_pConnection.get()),
          m_filter(m_pConnection.get(), std::move(pContext), m_admission, m_calls)
    {
    }

    TCDbusSession(const TCDbusSession&) = delete;
    TCDbusSession& operator=(const TCDbusSession&) = delete;

    GDBusConnection* Connection() const
    {
        return m_pConnection.get();
    }
    const std::string& UniqueName() const
    {
        return m_uniqueName;
    }
    bool IsClosed() const
    {
        return g_dbus_connection_is_closed(m_pConnection.get()) != FALSE;
    }
    TCDbusAdmission& Admission()
    {
        return m_admission;
    }
    TCDbusCalls& Calls()
    {
        return m_calls;
    }

private:
    const TGlibPtr<GDBusConnection> m_pConnection;
    const std::string m_uniqueName;
    TCDbusAdmission m_admission;
    TCDbusCalls m_calls;
    TCDbusFilter m_filter; // destroyed first
};

} // namespace qor

#endif
