// The service: answers policy requests, announces events, and watches over its bus name.
#ifndef QORD_SERVICE_H
#define QORD_SERVICE_H

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <qor/GlibTypes.h>
#include <qor/QORDbusServer.h>

#include "common/NameWatch.h"
#include "qord/Announcer.h"
#include "qord/Options.h"
#include "qord/Permission.h"
#include "qord/PolicyHandler.h"
#include "qord/Queries.h"
#include "qord/Watchdog.h"

namespace qord
{

/// Lives in the process's default main context, and takes over the process's signals.
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
    void m_GiveUpName();
    void m_Quit();
    void m_Fail(const std::string& reason);
    void m_OwnerIs(const std::string& owner);

    using THandler = bool (TCService::*)(const qor::TByteArray& request, const TSAsker& asker,
                                         qor::TByteArray& reply);
    void m_AnswerWith(int type, THandler handler);
    bool m_Answer(THandler handler, const qor::TByteArray& request,
                  qor::TByteArray& reply) noexcept;
    TSAsker m_WhoAsks();
    bool m_MayRead(const TSAsker& asker) const;

    bool m_SetPolicy(const qor::TByteArray& request, const TSAsker& asker, qor::TByteArray& reply);
    bool m_GetPolicy(const qor::TByteArray& request, const TSAsker& asker, qor::TByteArray& reply);
    bool m_GetStatus(const qor::TByteArray& request, const TSAsker& asker, qor::TByteArray& reply);
    void m_AnnounceAfterReply();
    std::size_t m_Suspended(int type);
    void m_Deliver(int type) noexcept;

    static int m_SayNothingToReload(void* pService);
    static int m_AskForProcessInfo(void* pService);
    static int m_AnnouncePolicy(void* pService);
    static int m_AnnounceStart(void* pService);
    static int m_HasAnswered(void* pService);

    TSOptions m_options;
    TCPolicyHandler m_handler;
    TCPermission m_permission;
    TCSenders m_senders;
    TCQueries m_queries;
    bool m_isRunning = true;
    bool m_isReady = false;
    int m_exitStatus = 0;
    std::atomic<unsigned int> m_begun{0}; ///< Requests that came in,
    std::atomic<unsigned int> m_ended{0}; ///< and those of them whose reply is out.
    bool m_isAnnouncementDue = false;
    unsigned int m_startAnnouncement = 0; ///< Source; 0 when it has run.
    std::vector<unsigned int> m_sources;
    qor::TGlibPtr<GDBusConnection> m_connection;
    std::unique_ptr<qor::TCDbusServer> m_server;
    std::unique_ptr<tools::TCNameWatch> m_nameWatch;
    std::unique_ptr<TCWatchdog> m_watchdog;
    std::unique_ptr<TCAnnouncer> m_announcer; ///< Its worker uses the server: it ends before.
};

} // namespace qord

#endif
