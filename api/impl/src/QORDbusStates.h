// Tells an endpoint's observers about the service, the registration and the bus.
#ifndef QOR_QORDBUSSTATES_H
#define QOR_QORDBUSSTATES_H

#include <map>
#include <memory>
#include <vector>

#include <pthread.h>

#include <qor/IDbusClient.h>
#include <qor/Mutex.h>

namespace qor
{

// Observers run in the endpoint's main context, one at a time, without a lock. Any thread may add
// and remove them.
class TCDbusStates
{
public:
    // Numbers begin at 1.
    unsigned int Add(const TStateCallback& callback) QOR_EXCLUDES(m_mutex);
    // Waits for the observer, unless the caller is inside it.
    bool Remove(unsigned int id) QOR_EXCLUDES(m_mutex);

    // In the main context. The first two report changes only.
    void SetService(bool isThere) QOR_EXCLUDES(m_mutex);
    void SetBus(bool isThere) QOR_EXCLUDES(m_mutex);
    void TellRegistered() QOR_EXCLUDES(m_mutex);
    void TellUnregistered() QOR_EXCLUDES(m_mutex);
    // Tells new observers the present state.
    void TellNew(bool isRegistered) QOR_EXCLUDES(m_mutex);

private:
    struct TSObserver
    {
        TStateCallback m_callback;
        bool m_isNew = true; // has not been told the present state
    };
    using TObservers = std::map<unsigned int, std::shared_ptr<TSObserver>>;

    std::vector<unsigned int> m_Observers(bool isNew) QOR_EXCLUDES(m_mutex);
    void m_Tell(EClientState state) QOR_EXCLUDES(m_mutex);
    void m_Tell(unsigned int id, EClientState state) QOR_EXCLUDES(m_mutex);

    TSPosixMutex m_mutex;
    pthread_cond_t m_left = PTHREAD_COND_INITIALIZER;
    TObservers m_observers QOR_GUARDED_BY(m_mutex);
    unsigned int m_lastId QOR_GUARDED_BY(m_mutex) = 0;
    unsigned int m_running QOR_GUARDED_BY(m_mutex) = 0; // the observer that runs, or 0
    pthread_t m_runner QOR_GUARDED_BY(m_mutex){};

    // Only in the main context.
    bool m_hasService = false;
    bool m_hasBus = true;
};

} // namespace qor

#endif
