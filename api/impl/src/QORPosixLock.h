// Scoped holders of the POSIX locks that are statically initialised and outlive everything.
#ifndef QOR_QORPOSIXLOCK_H
#define QOR_QORPOSIXLOCK_H

#include <pthread.h>

namespace qor
{

class TCMutexLock
{
public:
    explicit TCMutexLock(pthread_mutex_t& mutex) : m_mutex(mutex)
    {
        pthread_mutex_lock(&m_mutex);
    }
    ~TCMutexLock()
    {
        pthread_mutex_unlock(&m_mutex);
    }

    TCMutexLock(const TCMutexLock&) = delete;
    TCMutexLock& operator=(const TCMutexLock&) = delete;

    void Wait(pthread_cond_t& condition)
    {
        pthread_cond_wait(&condition, &m_mutex);
    }

private:
    pthread_mutex_t& m_mutex;
};

class TCReadLock
{
public:
    explicit TCReadLock(pthread_rwlock_t& lock) : m_lock(lock)
    {
        pthread_rwlock_rdlock(&m_lock);
    }
    ~TCReadLock()
    {
        pthread_rwlock_unlock(&m_lock);
    }

    TCReadLock(const TCReadLock&) = delete;
    TCReadLock& operator=(const TCReadLock&) = delete;

private:
    pthread_rwlock_t& m_lock;
};

class TCWriteLock
{
public:
    explicit TCWriteLock(pthread_rwlock_t& lock) : m_lock(lock)
    {
        pthread_rwlock_wrlock(&m_lock);
    }
    ~TCWriteLock()
    {
        pthread_rwlock_unlock(&m_lock);
    }

    TCWriteLock(const TCWriteLock&) = delete;
    TCWriteLock& operator=(const TCWriteLock&) = delete;

private:
    pthread_rwlock_t& m_lock;
};

} // namespace qor

#endif
