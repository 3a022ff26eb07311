// Watches who owns a name on the bus, and the connection itself.
#ifndef TOOLS_COMMON_NAMEWATCH_H
#define TOOLS_COMMON_NAMEWATCH_H

#include <functional>
#include <string>

#include <qor/GlibTypes.h>

namespace tools
{

/// Reports in the thread-default main context of the constructing thread, where it must also be
/// destroyed. The first report tells the state at construction.
class TCNameWatch
{
public:
    struct TSHandlers
    {
        std::function<void(const std::string& owner)> m_appeared;
        std::function<void()> m_vanished;
        std::function<void()> m_closed; ///< The connection is gone; nothing follows.
    };

    TCNameWatch(GDBusConnection* pConnection, const char* name, TSHandlers handlers);
    ~TCNameWatch();

    TCNameWatch(const TCNameWatch&) = delete;
    TCNameWatch& operator=(const TCNameWatch&) = delete;

private:
    static void m_Appeared(GDBusConnection* pConnection, const char* name, const char* owner,
                           void* pWatch);
    static void m_Vanished(GDBusConnection* pConnection, const char* name, void* pWatch);
    static void m_Closed(GDBusConnection* pConnection, int remotePeerVanished, GError* pError,
                         void* pWatch);

    TSHandlers m_handlers;
    GDBusConnection* m_pConnection; ///< Owned by the caller, who outlives the watch.
    unsigned long m_closedHandlerId;
    unsigned int m_watcherId;
};

} // namespace tools

#endif
