// Short names for the two ways of holding a reader-writer lock.
#ifndef QOR_QORLOCKS_H
#define QOR_QORLOCKS_H

#include <boost/thread/lock_types.hpp>
#include <boost/thread/shared_mutex.hpp>

namespace qor
{

using TSharedLock = boost::shared_lock<boost::shared_mutex>;
using TExclusiveLock = boost::unique_lock<boost::shared_mutex>;

} // namespace qor

#endif
