// Cached lookups of platform values.
#include <qor/QORCachingUtils.h>

#include <cstdlib>
#include <memory>
#include <optional>

#include <boost/thread/lock_types.hpp>

#include <vconf.h>

#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TCVelkinCachingUtils"

namespace qor
{

namespace
{

// Admits one lookup at a time, so that concurrent first calls for a key ask the platform once.
// The analysis has no word for such a lock; to it, this one is exclusive from the start.
class QOR_SCOPED_CAPABILITY TCLookupLock
{
public:
    explicit TCLookupLock(TCSharedMutex& mutex) QOR_ACQUIRE(mutex) : m_lock(mutex) {}
    ~TCLookupLock() QOR_RELEASE() {}

    TCLookupLock(const TCLookupLock&) = delete;
    TCLookupLock& operator=(const TCLookupLock&) = delete;

    // Waits for the readers of the cache.
    void MakeExclusive()
    {
        m_exclusive.emplace(m_lock);
    }

private:
    boost::upgrade_lock<boost::shared_mutex> m_lock;
    std::optional<boost::upgrade_to_unique_lock<boost::shared_mutex>> m_exclusive;
};

struct TSFree
{
    void operator()(char* text) const
    {
        std::free(text);
    }
};
using TPlatformString = std::unique_ptr<char, TSFree>;

template <class TMap>
bool Find(const TMap& cache, const typename TMap::key_type& key, typename TMap::mapped_type& value)
{
    const auto entry = cache.find(key);
    if (entry == cache.end())
    {
        return false;
    }
    value = entry->second;
    return true;
}

} // namespace

// The string functions fill the cache first: the caller's value may be the key itself, and stays
// as it was if there is no memory for the entry.

bool TCVelkinCachingUtils::GetVconfCachedString(const std::string& key, std::string& value)
{
    TCLookupLock lock(m_CacheMapMutex);
    if (Find(m_vconfStringCache, key, value))
    {
        return true;
    }
    lock.MakeExclusive();
    const TPlatformString answer(vconf_get_str(key.c_str()));
    if (!answer)
    {
        return false;
    }
    value = m_vconfStringCache.emplace(key, answer.get()).first->second;
    return true;
}

bool TCVelkinCachingUtils::GetSystemInfoKeyCached(system_info_key_e key, int& value)
{
    TCLookupLock lock(m_CacheMapMutex);
    if (Find(m_systemInfoKeysInt, key, value))
    {
        return true;
    }
    lock.MakeExclusive();
    if (system_info_get_value_int(key, &value) != 0)
    {
        QOR_LOG_ERROR("Fail getting systeminfo value");
        return false;
    }
    m_systemInfoKeysInt.emplace(key, value);
    return true;
}

bool TCVelkinCachingUtils::GetSystemInfoKeyCached(system_info_key_e key, std::string& value)
{
    TCLookupLock lock(m_CacheMapMutex);
    if (Find(m_systemInfoStrCache, key, value))
    {
        return true;
    }
    lock.MakeExclusive();
    char* pText = nullptr;
    if (system_info_get_value_string(key, &pText) != 0 || pText == nullptr)
    {
        QOR_LOG_ERROR("Fail getting systeminfo value");
        return false;
    }
    const TPlatformString answer(pText);
    value = m_systemInfoStrCache.emplace(key, answer.get()).first->second;
    return true;
}

} // namespace qor
