// The filter of a connection: sees every message before GDBus does.
#ifndef QOR_QORDBUSFILTER_H
#define QOR_QORDBUSFILTER_H

#include <gio/gio.h>

#include <qor/GlibTypes.h>

namespace qor
{

class TCDbusAdmission;
class TCDbusCalls;

// The host may share the connection, so the filter sees foreign traffic too and lets it pass
// untouched. It runs on GDBus's worker thread, which must not wait.
class TCDbusFilter
{
public:
    // The context must belong to the filter alone: GLib calls the filter's free function there.
    TCDbusFilter(GDBusConnection* pConnection, TGlibPtr<GMainContext> pContext,
                 TCDbusAdmission& admission, TCDbusCalls& calls);
    // When it returns, the worker thread has left the filter for good.
    ~TCDbusFilter();

    TCDbusFilter(const TCDbusFilter&) = delete;
    TCDbusFilter& operator=(const TCDbusFilter&) = delete;

private:
    static GDBusMessage* m_Filter(GDBusConnection* pConnection, GDBusMessage* pMessage,
                                  int isIncoming, void* pFilter);
    static void m_HasLeft(void* pFilter);

    GDBusConnection* m_pConnection;
    TGlibPtr<GMainContext> m_pContext;
    TCDbusAdmission& m_admission;
    TCDbusCalls& m_calls;
    unsigned int m_id;
    bool m_hasLeft; // only on the thread that destroys the filter
};

} // namespace qor

#endif
