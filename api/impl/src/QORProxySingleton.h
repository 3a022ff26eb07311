// How a process-wide proxy is created on first use and destroyed for good.
#ifndef QOR_QORPROXYSINGLETON_H
#define QOR_QORPROXYSINGLETON_H

#include <boost/shared_ptr.hpp>

#include "QORLocks.h"

namespace qor
{

// The lock guards the holder's content and the flag. It is never held while a proxy is destroyed.
template <class TProxy, class TInterface>
boost::shared_ptr<TInterface> ProxyInstance(boost::shared_ptr<TInterface>& holder,
                                            TSPosixRwLock& rwlock, const bool& destroyed)
{
    {
        const TCReadLock lock(rwlock);
        if (holder)
        {
            return holder;
        }
    }
    const TCWriteLock lock(rwlock);
    if (!destroyed && !holder)
    {
        holder.reset(new TProxy);
    }
    return holder;
}

template <class TInterface>
void ProxyDestroy(boost::shared_ptr<TInterface>& holder, TSPosixRwLock& rwlock, bool& destroyed)
{
    boost::shared_ptr<TInterface> last; // destroyed after the lock
    const TCWriteLock lock(rwlock);
    if (!destroyed)
    {
        destroyed = true;
        last.swap(holder);
    }
}

} // namespace qor

#endif
