// Calls that are answered when the applications have heard of a policy.
#ifndef QORD_HEARINGWAITS_H
#define QORD_HEARINGWAITS_H

#include <cstdint>
#include <list>
#include <string>

#include <gio/gio.h>

#include <qor/GlibTypes.h>
#include <qor/QORDbusServer.h>

#include "qord/Dictionary.h"
#include "qord/Events.h"
#include "qord/PolicyStore.h"

namespace qord
{

/// Belongs to the thread that iterates the default main context.
class TCHearingWaits
{
public:
    TCHearingWaits(const TCPolicyStore& store, TCEvents& events);
    ~TCHearingWaits();

    TCHearingWaits(const TCHearingWaits&) = delete;
    TCHearingWaits& operator=(const TCHearingWaits&) = delete;

    /// So many may wait at a time.
    bool IsFull() const;

    /// Answers the call when all that listen, but its own sender, have heard of the policy that is
    /// in force now, or the time is over, or another policy has come.
    ///
    /// @param pInvocation  taken over
    void Add(qor::TCDbusServer& server, GDBusMethodInvocation* pInvocation,
             const std::string& sha256, std::uint64_t size, unsigned int seconds);

    /// Answers those that are over.
    void Look();

    /// Answers all, with how things are.
    void End();

private:
    struct TSWait
    {
        qor::TGlibPtr<GDBusMethodInvocation> m_pInvocation;
        std::string m_mark; ///< Of the policy.
        std::string m_sha256;
        std::uint64_t m_size;
        gint64 m_deadline; ///< Monotonic time in microseconds.
    };
    bool m_Answer(TSWait& wait, bool isLast);
    static int m_OnTime(void* pWaits);

    const TCPolicyStore& m_store;
    TCEvents& m_events;
    qor::TCDbusServer* m_pServer = nullptr;
    std::list<TSWait> m_waits;
    unsigned int m_source = 0; ///< While there is one that waits.
};

/// The result of a policy that has been stored.
void AddStored(TCDictionary& about, const std::string& sha256, std::uint64_t size);

} // namespace qord

#endif
