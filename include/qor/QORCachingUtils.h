// Platform values, each asked of the platform once.
#ifndef QOR_QORCACHINGUTILS_H
#define QOR_QORCACHINGUTILS_H

#include <map>
#include <string>

#include <system_info.h>

#include <qor/Export.h>
#include <qor/Mutex.h>

namespace qor
{

/// Reads settings and system information of the platform through a cache that lasts for the life of
/// the process: the first successful answer for a key is kept, later changes are not seen. A failed
/// query is not kept; the next call asks again.
///
/// Any thread may call the functions. While one asks the platform for a missing value, calls on
/// other threads wait for it. They must not be called while the library is torn down (from
/// TIDestroyCallback::OnDestroy or a function registered with TCDeactivator).
class QOR_API TCVelkinCachingUtils
{
public:
    /// The text of a setting of the platform's configuration store; may be empty.
    ///
    /// @param value  set on success, unchanged otherwise
    /// @return false when the store has no answer; nothing is logged
    static bool GetVconfCachedString(const std::string& key, std::string& value);

    /// An integer of the platform's system information.
    ///
    /// @param value  set on success; after a failure it holds what the platform left there
    /// @return false, with an error in the log, when the platform has no answer
    static bool GetSystemInfoKeyCached(system_info_key_e key, int& value);

    /// A text of the platform's system information; cached apart from the integer of the same key.
    ///
    /// @param value  set on success, unchanged otherwise
    /// @return false, with an error in the log, when the platform has no answer
    static bool GetSystemInfoKeyCached(system_info_key_e key, std::string& value);

private:
    friend struct TSForkHandler;

    static TCSharedMutex m_CacheMapMutex; // one for the three maps
    static std::map<system_info_key_e, std::string>
        m_systemInfoStrCache QOR_GUARDED_BY(m_CacheMapMutex);
    static std::map<system_info_key_e, int> m_systemInfoKeysInt QOR_GUARDED_BY(m_CacheMapMutex);
    static std::map<std::string, std::string> m_vconfStringCache QOR_GUARDED_BY(m_CacheMapMutex);
};

} // namespace qor

#endif
