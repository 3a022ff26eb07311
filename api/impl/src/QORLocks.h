// Scoped holders of the library's mutexes.
#ifndef QOR_QORLOCKS_H
#define QOR_QORLOCKS_H

#include <pthread.h>

#include <cstdint>
#include <ctime>

#include <qor/Mutex.h>

namespace qor
{

class QOR_SCOPED_CAPABILITY TCSharedLock
{
public:
    explicit TCSharedLock(TCSharedMutex& mutex) QOR_ACQUIRE_SHARED(mutex) : m_mutex(mutex)
    {
        m_mutex.lock_shared();
    }
    ~TCSharedLock() QOR_RELEASE()
    {
        m_mutex.unlock_shared();
    }

    TCSharedLock(const TCSharedLock&) = delete;
    TCSharedLock& operator=(const TCSharedLock&) = delete;

private:
    TCSharedMutex& m_mutex;
};

// Of any mutex that has lock and unlock.
template <class TMutex>
class QOR_SCOPED_CAPABILITY TCExclusiveLock
{
public:
    explicit TCExclusiveLock(TMutex& mutex) QOR_ACQUIRE(mutex) : m_mutex(mutex)
    {
        m_mutex.lock();
    }
    ~TCExclusiveLock() QOR_RELEASE()
    {
        m_mutex.unlock();
    }

    TCExclusiveLock(const TCExclusiveLock&) = delete;
    TCExclusiveLock& operator=(const TCExclusiveLock&) = delete;

private:
    TMutex& m_mutex;
};

using TSharedLock = TCSharedLock;
using TExclusiveLock = TCExclusiveLock<TCSharedMutex>;
using TLock = TCExclusiveLock<TCMutex>;

// A condition whose waits end by the monotonic clock.
class TCCondition
{
public:
    TCCondition() : m_native()
    {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&m_native, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    ~TCCondition()
    {
        pthread_cond_destroy(&m_native);
    }

    TCCondition(const TCCondition&) = delete;
    TCCondition& operator=(const TCCondition&) = delete;

    void Signal()
    {
        pthread_cond_signal(&m_native);
    }
    void Broadcast()
    {
        pthread_cond_broadcast(&m_native);
    }

private:
    friend class TCPosixLock;

    pthread_cond_t m_native;
};

class QOR_SCOPED_CAPABILITY TCPosixLock
{
public:
    explicit TCPosixLock(TSPosixMutex& mutex) QOR_ACQUIRE(mutex) : m_mutex(mutex)
    {
        pthread_mutex_lock(&m_mutex.m_native);
    }
    ~TCPosixLock() QOR_RELEASE()
    {
        pthread_mutex_unlock(&m_mutex.m_native);
    }

    TCPosixLock(const TCPosixLock&) = delete;
    TCPosixLock& operator=(const TCPosixLock&) = delete;

    // Releases the mutex meanwhile.
    void Wait(pthread_cond_t& condition)
    {
        pthread_cond_wait(&condition, &m_mutex.m_native);
    }
    void Wait(TCCondition& condition)
    {
        Wait(condition.m_native);
    }
    // Waits until that time, in microseconds. Returns whether it was woken up before.
    bool WaitUntil(TCCondition& condition, std::int64_t monotonicTime)
    {
        constexpr std::int64_t second = 1000000;
        timespec end{};
        end.tv_sec = static_cast<time_t>(monotonicTime / second);
        end.tv_nsec = static_cast<long>(monotonicTime % second) * 1000;
        return pthread_cond_timedwait(&condition.m_native, &m_mutex.m_native, &end) == 0;
    }

private:
    TSPosixMutex& m_mutex;
};

class QOR_SCOPED_CAPABILITY TCReadLock
{
public:
    explicit TCReadLock(TSPosixRwLock& lock) QOR_ACQUIRE_SHARED(lock) : m_lock(lock)
    {
        pthread_rwlock_rdlock(&m_lock.m_native);
    }
    ~TCReadLock() QOR_RELEASE()
    {
        pthread_rwlock_unlock(&m_lock.m_native);
    }

    TCReadLock(const TCReadLock&) = delete;
    TCReadLock& operator=(const TCReadLock&) = delete;

private:
    TSPosixRwLock& m_lock;
};

class QOR_SCOPED_CAPABILITY TCWriteLock
{
public:
    explicit TCWriteLock(TSPosixRwLock& lock) QOR_ACQUIRE(lock) : m_lock(lock)
    {
        pthread_rwlock_wrlock(&m_lock.m_native);
    }
    ~TCWriteLock() QOR_RELEASE()
    {
        pthread_rwlock_unlock(&m_lock.m_native);
    }

    TCWriteLock(const TCWriteLock&) = delete;
    TCWriteLock& operator=(const TCWriteLock&) = delete;

private:
    TSPosixRwLock& m_lock;
};

} // namespace qor

#endif
