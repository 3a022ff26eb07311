// The lock of the teardown coordinator, which its holder may take again: a line that is logged
// under it may lead back into the coordinator.
//
// POSIX names no static initialiser of a recursive mutex. So the mutex is a plain one, and each
// thread counts for itself; the count serves one mutex alone.
#ifndef QOR_QORRECURSIVELOCK_H
#define QOR_QORRECURSIVELOCK_H

#include <pthread.h>

#include <qor/Mutex.h>

namespace qor
{

class QOR_SCOPED_CAPABILITY TCRecursiveLock
{
public:
    explicit TCRecursiveLock(TSPosixMutex& mutex) QOR_ACQUIRE(mutex) QOR_NOT_ANALYSED
        : m_mutex(mutex)
    {
        if (m_depth++ == 0)
        {
            pthread_mutex_lock(&m_mutex.m_native);
        }
    }
    ~TCRecursiveLock() QOR_RELEASE() QOR_NOT_ANALYSED
    {
        if (--m_depth == 0)
        {
            pthread_mutex_unlock(&m_mutex.m_native);
        }
    }

    TCRecursiveLock(const TCRecursiveLock&) = delete;
    TCRecursiveLock& operator=(const TCRecursiveLock&) = delete;

    // Lets the mutex go meanwhile, however often it has been taken.
    void Wait(pthread_cond_t& condition)
    {
        pthread_cond_wait(&condition, &m_mutex.m_native);
    }

    // In a forked child: nobody has the mutex but the thread that forked, if it had.
    static void MakeAnew(TSPosixMutex& mutex)
    {
        mutex = {};
        if (m_depth > 0)
        {
            pthread_mutex_lock(&mutex.m_native);
        }
    }

private:
    TSPosixMutex& m_mutex;
    static inline thread_local unsigned int m_depth = 0;
};

} // namespace qor

#endif
