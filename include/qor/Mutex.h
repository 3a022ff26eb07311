// The library's mutexes. They carry what Clang's thread-safety analysis needs to check that a
// member is touched only under the lock that guards it; for other compilers they are the plain
// ones.
#ifndef QOR_MUTEX_H
#define QOR_MUTEX_H

#include <pthread.h>

#include <boost/thread/mutex.hpp>
#include <boost/thread/shared_mutex.hpp>

#ifdef __clang__
#define QOR_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define QOR_THREAD_SAFETY(attribute)
#endif

#define QOR_CAPABILITY QOR_THREAD_SAFETY(capability("mutex"))
#define QOR_SCOPED_CAPABILITY QOR_THREAD_SAFETY(scoped_lockable)
/// The member is read under the lock, and written under the lock held exclusively.
#define QOR_GUARDED_BY(lock) QOR_THREAD_SAFETY(guarded_by(lock))
/// The same for what the pointer leads to.
#define QOR_POINTEE_GUARDED_BY(lock) QOR_THREAD_SAFETY(pt_guarded_by(lock))
/// The caller holds the lock exclusively.
#define QOR_REQUIRES(...) QOR_THREAD_SAFETY(requires_capability(__VA_ARGS__))
/// The caller holds the lock, shared or exclusively.
#define QOR_REQUIRES_SHARED(...) QOR_THREAD_SAFETY(requires_shared_capability(__VA_ARGS__))
/// The caller does not hold the lock: the function takes it, or waits for a thread that may take
/// it.
#define QOR_EXCLUDES(...) QOR_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
#define QOR_ACQUIRE(...) QOR_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define QOR_ACQUIRE_SHARED(...) QOR_THREAD_SAFETY(acquire_shared_capability(__VA_ARGS__))
#define QOR_RELEASE(...) QOR_THREAD_SAFETY(release_capability(__VA_ARGS__))
/// For code that the analysis cannot follow; a comment beside it says why the code is right.
#define QOR_NOT_ANALYSED QOR_THREAD_SAFETY(no_thread_safety_analysis)

namespace qor
{

/// Reader-writer lock.
class QOR_CAPABILITY TCSharedMutex : public boost::shared_mutex
{
};

/// Plain mutex.
class QOR_CAPABILITY TCMutex : public boost::mutex
{
};

/// POSIX mutex: statically initialised and never destroyed, so it can be used before, and after,
/// everything that has a constructor.
struct QOR_CAPABILITY TSPosixMutex
{
    /// For the calls of POSIX.
    pthread_mutex_t m_native = PTHREAD_MUTEX_INITIALIZER;
};

/// POSIX reader-writer lock, likewise.
struct QOR_CAPABILITY TSPosixRwLock
{
    /// For the calls of POSIX.
    pthread_rwlock_t m_native = PTHREAD_RWLOCK_INITIALIZER;
};

} // namespace qor

#endif
