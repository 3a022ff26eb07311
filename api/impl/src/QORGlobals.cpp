// The library's process-wide state, built in this order and torn down in the reverse one.
//
// The order is part of what the library promises, and the language gives none between units: so
// everything with a constructor or a destructor is defined here, and its class only declares it.
// Holders that must outlive the teardown are allocated and never freed.
#include <pthread.h>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/weak_ptr.hpp>

#include <qor/QORCachingUtils.h>
#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDeactivator.h>
#include <qor/QORDebug.h>
#include <qor/QORDirsManager.h>

#include "QORControlProxy.h"
#include "QORFork.h"
#include "QORPolicyPaths.h"

namespace qor
{

// 1. The policy paths and their lock: used until everything else is gone.
boost::shared_mutex TCDirsManager::m_mutex;
std::string TCDirsManager::m_policyXmlPath = DEFAULT_POLICY_XML_PATH;
std::string TCDirsManager::m_policyPath = DEFAULT_POLICY_PATH;

// 2. The log settings. No destructor: every line logged during the teardown still finds them.
TCDebug TCDebug::m_instance;

// 3. The teardown coordinator.
pthread_mutex_t TCDeactivator::m_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
bool TCDeactivator::m_destroyed = false;
TCDeactivator TCDeactivator::m_instance;

// 4. The client provider.
boost::mutex* const TCDbusClientProvider::m_pMutex = new boost::mutex;
boost::weak_ptr<IDbusClient>* const TCDbusClientProvider::m_pDbusClient =
    new boost::weak_ptr<IDbusClient>;
TCDbusClient* TCDbusClientProvider::m_pLatest = nullptr;

// 5. The holders of the two proxies, empty.
boost::shared_ptr<IControl>* const TCControlProxy::m_pInstance = new boost::shared_ptr<IControl>;
pthread_rwlock_t TCControlProxy::m_rwlock = PTHREAD_RWLOCK_INITIALIZER;
bool TCControlProxy::m_destroyed = false;

boost::shared_ptr<ICallbacks>* const TCCallbacksProxy::m_pInstance =
    new boost::shared_ptr<ICallbacks>;
pthread_rwlock_t TCCallbacksProxy::m_rwlock = PTHREAD_RWLOCK_INITIALIZER;
bool TCCallbacksProxy::m_destroyed = false;

// 6. The caches of platform values and their lock: the first to go.
boost::shared_mutex TCVelkinCachingUtils::m_CacheMapMutex;
std::map<system_info_key_e, std::string> TCVelkinCachingUtils::m_systemInfoStrCache;
std::map<system_info_key_e, int> TCVelkinCachingUtils::m_systemInfoKeysInt;
std::map<std::string, std::string> TCVelkinCachingUtils::m_vconfStringCache;

// In a forked child the locks are free again, whichever thread of the parent held them: the child's
// exit runs the teardown. The handler goes away with the library: it is registered under the
// library's own handle.
TSForkHandler::TSForkHandler()
{
    pthread_atfork(nullptr, nullptr, &TSForkHandler::ResetLocks);
}

void TSForkHandler::ResetLocks()
{
    const pthread_mutex_t freshMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    const pthread_rwlock_t freshLock = PTHREAD_RWLOCK_INITIALIZER;
    MakeAnew(TCDirsManager::m_mutex);
    TCDeactivator::m_mutex = freshMutex;
    MakeAnew(*TCDbusClientProvider::m_pMutex);
    TCControlProxy::m_rwlock = freshLock;
    TCCallbacksProxy::m_rwlock = freshLock;
    MakeAnew(TCVelkinCachingUtils::m_CacheMapMutex);
}

namespace
{

const TSForkHandler g_forkHandler;

} // namespace

} // namespace qor
