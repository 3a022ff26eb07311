// Measures what callers and clients cost a service, and limits it.
#ifndef QOR_QORDBUSSERVERLOAD_H
#define QOR_QORDBUSSERVERLOAD_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <set>
#include <string>

#include <glib.h>

#include <qor/Mutex.h>
#include <qor/QORDbusServer.h>

#include "QORDbusContext.h"

namespace qor
{

struct TCDbusServer::TSLoad
{
    std::unique_ptr<TCDbusTimer> m_pNews; // due when admission has something to do
    std::unique_ptr<TCDbusTimer>
        m_pSweep;              // due when the server checks which clients are still there
    bool m_isSweepSet = false; // in the main context
    std::atomic<bool> m_isForbiddenTold{false}; // logged that the bus forbids the question
    TSPosixMutex m_mutex;
    // The names that the bus has listed, and when it was asked (monotonic time).
    std::set<std::string> m_names QOR_GUARDED_BY(m_mutex);
    gint64 m_namesTime QOR_GUARDED_BY(m_mutex) = 0;
};

} // namespace qor

#endif
