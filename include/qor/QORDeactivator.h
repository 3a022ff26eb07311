// Runs what must happen at library unload or process exit, once and in a fixed order.
#ifndef QOR_QORDEACTIVATOR_H
#define QOR_QORDEACTIVATOR_H

#include <pthread.h>

#include <set>

#include <qor/Export.h>
#include <qor/TIDestroyCallback.h>

namespace qor
{

/// The teardown coordinator. At library unload or process exit, whichever comes first, it calls the
/// registered user object and then the registered functions in ascending order of their addresses,
/// each once; from then on it refuses registrations.
///
/// All operations may be called from any thread; while the teardown runs, callers on other threads
/// wait for it, and calls from inside the teardown are refused without blocking.
class QOR_API TCDeactivator
{
public:
    TCDeactivator();
    ~TCDeactivator();

    TCDeactivator(const TCDeactivator&) = delete;
    TCDeactivator& operator=(const TCDeactivator&) = delete;

    /// Adds a function for the teardown to call. A function is held once, however often it is
    /// registered. It must not throw, and its code must be loaded until the teardown has run.
    /// After the teardown has begun the function is not stored and an error is logged.
    static void RegisterDBUS(void (*callback)());

    /// Puts an object into the one user slot. Not owned: it must live until it is unregistered or
    /// the teardown has called it.
    ///
    /// @return false, with an error in the log, when the slot is taken or the teardown has begun
    static bool RegisterUser(TIDestroyCallback& user);

    /// Empties the user slot, whichever object it holds. No effect after the teardown has begun.
    static void UnregisterUser(TIDestroyCallback& user);

private:
    friend struct TSForkHandler;

    void m_Deactivate();

    TIDestroyCallback* m_pUser;
    std::set<void (*)()> m_dbusCallbacks;

    static TCDeactivator m_instance;
    static pthread_mutex_t m_mutex;
    static bool m_destroyed;
};

} // namespace qor

#endif
