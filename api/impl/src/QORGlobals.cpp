// The library's process-wide state, built in this order and torn down in the reverse one.
//
// The library promises this order, and the language guarantees none between units. So everything
// with a constructor or a destructor is defined here, and its class only declares it. Holders that
// must outlive the teardown are allocated and never freed.
#include <pthread.h>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <qor/QORCachingUtils.h>
#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDeactivator.h>
#include <qor/QORDebug.h>
#include <qor/QORDirsManager.h>

#include "QORControlProxy.h"
#include "QORFork.h"
#include "QORPolicyControlProxy.h"
#include "QORPolicyPaths.h"
#include "QORRecursiveLock.h"

namespace qor
{

// 1. The policy paths and their lock: used until everything else is gone.
TCSharedMutex TCDirsManager::m_mutex;
std::string TCDirsManager::m_policyXmlPath = DEFAULT_POLICY_XML_PATH;
std::string TCDirsManager::m_policyPath = DEFAULT_POLICY_PATH;

// 2. The log settings. No destructor: every line logged during the teardown still finds them.
TCDebug TCDebug::m_instance;

// 3. The teardown coordinator.
TSPosixMutex TCDeactivator::m_mutex;
bool TCDeactivator::m_destroyed = false;
bool TCDeactivator::m_isDestroyingUser = false;
pthread_t TCDeactivator::m_destroyer{};
pthread_cond_t TCDeactivator::m_userDestroyed = PTHREAD_COND_INITIALIZER;
TCDeactivator TCDeactivator::m_instance;

// 4. The client provider.
TCMutex* const TCDbusClientProvider::m_pMutex = new TCMutex;
boost::weak_ptr<IDbusClient>* const TCDbusClientProvider::m_pDbusClient =
    new boost::weak_ptr<IDbusClient>;
TCDbusClient* TCDbusClientProvider::m_pLatest = nullptr;

// 5. The holders of the proxies, empty.
boost::shared_ptr<IControl>* const TCControlProxy::m_pInstance = new boost::shared_ptr<IControl>;
TSPosixRwLock TCControlProxy::m_rwlock;
bool TCControlProxy::m_destroyed = false;

boost::shared_ptr<IPolicyControl>* const TCPolicyControlProxy::m_pInstance =
    new boost::shared_ptr<IPolicyControl>;
TSPosixRwLock TCPolicyControlProxy::m_rwlock;
bool TCPolicyControlProxy::m_destroyed = false;

boost::shared_ptr<ICallbacks>* const TCCallbacksProxy::m_pInstance =
    new boost::shared_ptr<ICallbacks>;
TSPosixRwLock TCCallbacksProxy::m_rwlock;
bool TCCallbacksProxy::m_destroyed = false;

// 6. The caches of platform values and their lock: the first to go.
TCSharedMutex TCVelkinCachingUtils::m_CacheMapMutex;
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

void TSForkHandler::ResetLocks() QOR_NOT_ANALYSED // the child has no other thread
{
    MakeAnew(TCDirsManager::m_mutex);
    TCRecursiveLock::MakeAnew(TCDeactivator::m_mutex);
    TCDeactivator::m_isDestroyingUser = false;
    MakeAnew(*TCDbusClientProvider::m_pMutex);
    MakeAnew(TCControlProxy::m_rwlock);
    MakeAnew(TCPolicyControlProxy::m_rwlock);
    MakeAnew(TCCallbacksProxy::m_rwlock);
    MakeAnew(TCVelkinCachingUtils::m_CacheMapMutex);
}

namespace
{

const TSForkHandler g_forkHandler;

} // namespace

} // namespace qor
