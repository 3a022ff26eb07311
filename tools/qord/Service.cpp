// The service: answers policy requests, announces events, and watches over its bus name.
#include "qord/Service.h"

#include <csignal>
#include <exception>
#include <stdexcept>
#include <utility>

#include <glib-unix.h>

#include <qor/ICallbacks.h>
#include <qor/PolicyMessage.h>

#include "common/ExitStatus.h"
#include "common/SystemBus.h"
#include "common/Text.h"
#include "qord/Report.h"
#include "qord/ServiceManager.h"

namespace qord
{
namespace
{

constexpr int g_stopLimitMs = 2800;
constexpr unsigned int g_lastEventsMs = 2000;   // of that limit
constexpr unsigned int g_registrationMs = 1000; // the clients of a predecessor have registered

} // namespace

TCService::TCService(const TSOptions& options)
    : m_stopSignals([this] { m_Stop(); }, g_stopLimitMs), // now, so that none is missed
      m_options(options),
      m_handler(TCPolicyStore(options.m_policyFile, options.m_storeRules), options.m_maxPolicySize,
                m_users),
      m_permission(options.m_permission, m_users),
      m_events(m_handler.Store(), options.m_eventTimeoutMs,
               [this]
               {
                   m_watchdog->Tell();
                   m_waits.Look();
               }),
      m_waits(m_handler.Store(), m_events),
      m_facts(m_options, m_handler, m_events, m_permission, m_users),
      m_interface(m_ForInterface(), m_handler, m_facts, m_waits)
{
}

TCService::~TCService()
{
    m_policyWatch.reset();
    m_watchdog.reset();
    m_server.reset();
    if (m_startAnnouncement != 0)
    {
        g_source_remove(m_startAnnouncement);
    }
    for (const unsigned int source : m_sources)
    {
        g_source_remove(source);
    }
    m_handler.Refusals().End();
    if (m_isReady)
    {
        Report("stopped");
    }
}

int TCService::Run()
{
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // a write over the limit fails instead
    m_sources.push_back(g_unix_signal_add(SIGHUP, m_SayNothingToReload, this));
    m_sources.push_back(g_unix_signal_add(SIGUSR1, m_AskForProcessInfo, this));
    if (m_Start())
    {
        while (m_isRunning)
        {
            g_main_context_iteration(nullptr, TRUE);
        }
    }
    return m_exitStatus;
}

bool TCService::m_Start()
{
    const std::vector<qor::TSServiceInterface> interfaces = {m_interface.Interface()};
    m_server = std::make_unique<qor::TCDbusServer>(m_options.m_testNames, interfaces);
    m_interface.Use(*m_server);
    if (m_server->GetUniqueName().empty())
    {
        m_stopSignals.Take(); // a bus that does not answer takes a while
        m_Fail("cannot reach the system bus; with QOR_DLOG=stderr, the library says why");
        return false;
    }
    m_watchdog = std::make_unique<TCWatchdog>([this] { return m_facts.Summary(*m_server); });
    m_server->SetCallback(qor::SET_POLICY,
                          [this](const qor::TByteArray& request, qor::TByteArray& reply)
                          { return m_SetPolicy(request, reply); });
    m_server->SetStateCallback([this](qor::EServiceState state) { m_StateIs(state); });
    m_server->SetResumeCallback([this](const std::string& client, int type)
                                { m_events.Resumed(*m_server, client, type); });
    if (m_options.m_processInfoSeconds != 0)
    {
        m_sources.push_back(
            g_timeout_add_seconds(m_options.m_processInfoSeconds, m_AskForProcessInfo, this));
    }
    return true;
}

void TCService::m_StateIs(qor::EServiceState state)
{
    switch (state)
    {
    case qor::EServiceState::STARTING:
        break;
    case qor::EServiceState::ACQUIRED:
        m_Begin();
        break;
    case qor::EServiceState::QUEUED:
        m_Fail("the bus name belongs to another process");
        break;
    case qor::EServiceState::REFUSED:
        m_Fail("the bus name is not granted");
        break;
    case qor::EServiceState::LOST:
        m_Fail("the bus name was lost");
        break;
    case qor::EServiceState::BUS_CLOSED:
        m_Fail("the connection to the system bus is closed");
        break;
    }
}

// Once the name is granted, and not before: a process that cannot serve creates no files. The first
// request may be dispatched together with that news.
bool TCService::m_Begin()
{
    if (m_isReady || m_isStopping)
    {
        return m_isReady;
    }
    try
    {
        m_handler.Open();
    }
    catch (const std::runtime_error& exception)
    {
        m_Fail(exception.what());
        return false;
    }
    for (const std::string& group : m_permission.MissingGroups())
    {
        ReportError("there is no group %s whose members could change the policy",
                    tools::Printable(group).c_str());
    }
    m_mark = MarkOfPolicyInForce(m_handler.Store());
    m_policyWatch =
        std::make_unique<TCPolicyWatch>(m_options.m_policyFile, [this] { m_FileChanged(); });
    m_isReady = true;
    Report("ready as %s (%s), policy file %s", tools::ServiceName(m_options.m_testNames),
           m_server->GetUniqueName().c_str(), m_options.m_policyFile.c_str());
    m_watchdog->Tell("READY=1\n");
    // The service before this one may have ended between a policy and its announcement.
    m_startAnnouncement = g_timeout_add(g_registrationMs, m_AnnounceStart, this);
    return true;
}

// The library sees to it that replies are out, that events which are under way end within the limit
// or not at all, and that the name is free then.
void TCService::m_Stop()
{
    if (std::exchange(m_isStopping, true))
    {
        return;
    }
    TellServiceManager("STOPPING=1");
    m_handler.Refusals().End(); // now, since the end may not be waited for
    m_AnnounceWhatIsDue();
    if (m_server != nullptr)
    {
        m_waits.End();
    }
    m_isRunning = m_server->Stop(g_lastEventsMs, [this] { m_isRunning = false; });
}

void TCService::m_Fail(const std::string& reason)
{
    if (!m_isStopping)
    {
        ReportError("%s", reason.c_str());
        m_exitStatus = tools::EXIT_REFUSED;
    }
    m_Stop();
}

TCPolicyInterface::TSService TCService::m_ForInterface()
{
    return {[this] { return m_Asker(); },
            // If reading is not restricted, the caller need not be looked up.
            [this]
            {
                return m_options.m_permission.m_restrictReading ? m_Asker().m_permission
                                                                : EPermission::GRANTED;
            },
            [this] { return m_Begin(); }, [this] { m_AnnounceAfterReply(); }};
}

TSAsker TCService::m_Asker()
{
    TSAsker asker;
    asker.m_peer = m_server->CurrentPeer();
    asker.m_permission = m_permission.MayChange(asker.m_peer);
    return asker;
}

// Runs inside the bus library, which takes no exception.
bool TCService::m_SetPolicy(const qor::TByteArray& request, qor::TByteArray& reply) noexcept
{
    try
    {
        const TSAsker asker = m_Asker();
        int result = qor::POLICY_NOT_STORED;
        if (!m_Begin() || !m_handler.Handle(request, asker, reply, result))
        {
            return false;
        }
        if (result == qor::POLICY_STORED || result == qor::POLICY_STATE_UNKNOWN)
        {
            m_AnnounceAfterReply();
        }
        return true;
    }
    catch (const std::exception& exception)
    {
        ReportError("a request failed: %s", exception.what());
    }
    return false;
}

// The sender still waits for the reply, and a client that waits is not called: the announcement
// begins when the context comes round again, after the reply.
void TCService::m_AnnounceAfterReply()
{
    m_mark = MarkOfPolicyInForce(m_handler.Store());
    if (!m_isAnnouncementDue)
    {
        m_isAnnouncementDue = true;
        g_idle_add_full(G_PRIORITY_DEFAULT, m_AnnouncePolicy, this, nullptr);
    }
}

// The service's own changes come here as well.
void TCService::m_FileChanged()
{
    if (m_isStopping || MarkOfPolicyInForce(m_handler.Store()) == m_mark)
    {
        return;
    }
    m_handler.LookAtForeignPolicy();
    m_AnnounceAfterReply();
}

void TCService::m_AnnounceWhatIsDue()
{
    if (std::exchange(m_isAnnouncementDue, false))
    {
        m_interface.TellChange(!m_options.m_permission.m_restrictReading);
        m_events.Send(*m_server, qor::ICallbacks::POLICY_UPDATE);
    }
}

int TCService::m_SayNothingToReload(void*)
{
    Report("SIGHUP changes nothing: there is no configuration to read again");
    return G_SOURCE_CONTINUE;
}

int TCService::m_AskForProcessInfo(void* pService)
{
    auto* pThis = static_cast<TCService*>(pService);
    pThis->m_events.Send(*pThis->m_server, qor::ICallbacks::REQUEST_PROCESS_INFO);
    return G_SOURCE_CONTINUE;
}

int TCService::m_AnnouncePolicy(void* pService)
{
    static_cast<TCService*>(pService)->m_AnnounceWhatIsDue();
    return G_SOURCE_REMOVE;
}

int TCService::m_AnnounceStart(void* pService)
{
    auto* pThis = static_cast<TCService*>(pService);
    pThis->m_startAnnouncement = 0;
    pThis->m_interface.TellChange(!pThis->m_options.m_permission.m_restrictReading);
    pThis->m_events.Send(*pThis->m_server, qor::ICallbacks::POLICY_UPDATE);
    return G_SOURCE_REMOVE;
}

} // namespace qord
