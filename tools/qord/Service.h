// The service: answers policy requests, announces events, and watches over its bus name.
#ifndef QORD_SERVICE_H
#define QORD_SERVICE_H

#include <memory>
#include <string>
#include <vector>

#include <qor/QORDbusServer.h>

#include "qord/Events.h"
#include "qord/HearingWaits.h"
#include "qord/Options.h"
#include "qord/Permission.h"
#include "qord/PolicyFacts.h"
#include "qord/PolicyHandler.h"
#include "qord/PolicyInterface.h"
#include "qord/PolicyWatch.h"
#include "qord/StopSignals.h"
#include "qord/UserDatabase.h"
#include "qord/Watchdog.h"

namespace qord
{

/// Lives in the process's default main context, on one thread, and takes over the process's
/// signals.
class TCService
{
public:
    explicit TCService(const TSOptions& options);
    ~TCService();

    TCService(const TCService&) = delete;
    TCService& operator=(const TCService&) = delete;

    /// Serves until a signal ends it or it can no longer serve.
    ///
    /// @return the process's exit status
    int Run();

private:
    bool m_Start();
    bool m_Begin();
    void m_Stop();
    void m_Fail(const std::string& reason);
    void m_StateIs(qor::EServiceState state);

    TCPolicyInterface::TSService m_ForInterface();
    TSAsker m_Asker();
    bool m_SetPolicy(const qor::TByteArray& request, qor::TByteArray& reply) noexcept;
    void m_AnnounceAfterReply();
    void m_FileChanged();
    void m_AnnounceWhatIsDue();

    static int m_SayNothingToReload(void* pService);
    static int m_AskForProcessInfo(void* pService);
    static int m_AnnouncePolicy(void* pService);
    static int m_AnnounceStart(void* pService);

    TCStopSignals m_stopSignals; ///< First: its limit holds until everything else has ended.
    TSOptions m_options;
    TCUserDatabase m_users;
    TCPolicyHandler m_handler;
    TCPermission m_permission;
    TCEvents m_events;
    TCHearingWaits m_waits;
    TCPolicyFacts m_facts;
    TCPolicyInterface m_interface;
    bool m_isRunning = true;
    bool m_isReady = false;
    bool m_isStopping = false;
    int m_exitStatus = 0;
    bool m_isAnnouncementDue = false;
    std::string m_mark;                   ///< Of the policy that was known to be in force last.
    unsigned int m_startAnnouncement = 0; ///< Source; 0 when it has run.
    std::vector<unsigned int> m_sources;
    std::unique_ptr<qor::TCDbusServer> m_server;
    std::unique_ptr<TCWatchdog> m_watchdog;
    std::unique_ptr<TCPolicyWatch> m_policyWatch;
};

} // namespace qord

#endif
