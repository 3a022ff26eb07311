// Makes sure that the service has taken the registration for events.
#ifndef QORCTL_REGISTRATION_H
#define QORCTL_REGISTRATION_H

#include <functional>
#include <memory>
#include <string>

#include <qor/GlibTypes.h>

namespace qorctl
{

enum class ERegistration
{
    TAKEN,
    REFUSED,   ///< By the bus or by the service, which will not change its mind.
    UNANSWERED ///< It may still be taken.
};

/// Says the library's Hello once more: the endpoint asks for no answer to its own, so that nobody
/// would learn of a refusal. The types are the same ones, and the service replaces them.
class TCRegistration
{
public:
    using TDone = std::function<void(ERegistration, const std::string& error)>;

    /// Does not block; done is called in the thread-default main context, unless what is returned
    /// has been released before.
    static std::shared_ptr<TCRegistration> Start(GDBusConnection* pConnection, bool testNames,
                                                 const std::string& owner, TDone done);

private:
    explicit TCRegistration(TDone done);
    static void m_Answered(GObject* pConnection, GAsyncResult* pResult, void* pRegistration);

    TDone m_done;
};

} // namespace qorctl

#endif
