// The host's hook into the library's teardown.
#ifndef QOR_TIDESTROYCALLBACK_H
#define QOR_TIDESTROYCALLBACK_H

#include <qor/Export.h>

namespace qor
{

/// Implemented by a host that wants to know when the library goes down;
/// see TCDeactivator::RegisterUser.
class QOR_API TIDestroyCallback
{
public:
    virtual ~TIDestroyCallback();

    /// Called once, at library unload or process exit, on the thread that does it, before any part
    /// of the library is torn down. Must not throw. Registrations made from here are refused.
    virtual void OnDestroy() = 0;
};

} // namespace qor

#endif
