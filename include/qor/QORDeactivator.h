// Runs what must happen at library unload or process exit, once and in a fixed order.
#ifndef QOR_QORDEACTIVATOR_H
#define QOR_QORDEACTIVATOR_H

#include <pthread.h>

#include <set>

#include <qor/Export.h>
#include <qor/Mutex.h>
#include <qor/TIDestroyCallback.h>

namespace qor
{

/// The teardown coordinator. At library unload or process exit, whichever comes first, it calls the
/// registered user object and then the registered functions in ascending order of their addresses,
/// each once; from then on it refuses registrations.
///
/// All operations may be called from any thread. While the teardown runs, registrations on all
/// threads are refused without waiting, because a function that the teardown calls may wait for
/// them.
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

    /// Empties the user slot, whichever object it holds. No effect after the teardown has begun;
    /// but while the teardown calls the object on another thread, it waits until that call has
    /// returned, so that the object may be destroyed.
    static void UnregisterUser(TIDestroyCallback& user);

private:
    friend struct TSForkHandler;

    void m_Deactivate() QOR_EXCLUDES(m_mutex);
    static void m_DestroyUser(TIDestroyCallback& user) QOR_EXCLUDES(m_mutex);

    TIDestroyCallback* m_pUser QOR_GUARDED_BY(m_mutex);
    std::set<void (*)()> m_dbusCallbacks QOR_GUARDED_BY(m_mutex);

    static TCDeactivator m_instance;
    static TSPosixMutex m_mutex;
    static bool m_destroyed QOR_GUARDED_BY(m_mutex);
    // The call of OnDestroy, while it runs.
    static bool m_isDestroyingUser QOR_GUARDED_BY(m_mutex);
    static pthread_t m_destroyer QOR_GUARDED_BY(m_mutex);
    static pthread_cond_t m_userDestroyed;
};

} // namespace qor

#endif
