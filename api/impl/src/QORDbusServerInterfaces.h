// Interfaces of a service's own, as they are registered with GDBus.
#ifndef QOR_QORDBUSSERVERINTERFACES_H
#define QOR_QORDBUSSERVERINTERFACES_H

#include <functional>
#include <vector>

#include <gio/gio.h>

#include <qor/GlibTypes.h>
#include <qor/ServiceInterface.h>

namespace qor
{

// In the main context of its server only; complete before it is exported.
class TCDbusServerInterfaces
{
public:
    // Throws std::invalid_argument, see TCDbusServer.
    void Add(const TSServiceInterface& own);

    // All of them, or false with an error line.
    bool Export(GDBusConnection* pConnection, const char* path, const GDBusInterfaceVTable& vtable,
                const std::function<void*()>& newUserData);
    void Unexport(GDBusConnection* pConnection);

    // Takes over the invocation.
    void Answer(GDBusMethodInvocation* pInvocation) const;

private:
    struct TSEntry
    {
        TSServiceInterface m_interface;
        TGlibPtr<GDBusNodeInfo> m_pNode;
        unsigned int m_registrationId;
    };

    std::vector<TSEntry> m_entries;
};

} // namespace qor

#endif
