// The host's hook into the library's teardown.
#ifndef QOR_TIDESTROYCALLBACK_H
#define QOR_TIDESTROYCALLBACK_H

#include <qor/Export.h>

namespace qor
{

/// A host implements it to learn when the library is torn down;
/// see TCDeactivator::RegisterUser.
class QOR_API TIDestroyCallback
{
public:
    virtual ~TIDestroyCallback();

    /// Called once, at library unload or process exit, on the thread that unloads or exits, before
    /// any part of the library is torn down. Must not throw. Registrations made from here are
    /// refused.
    virtual void OnDestroy() = 0;
};

} // namespace qor

#endif
