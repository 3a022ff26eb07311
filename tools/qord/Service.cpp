// The service: answers policy requests, announces events, and watches over its bus name.
#include "qord/Service.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <exception>
#include <stdexcept>

#include <gio/gio.h>
#include <glib-unix.h>
#include <systemd/sd-daemon.h>

#include <qor/ICallbacks.h>
#include <qor/PolicyMessage.h>

#include "common/Events.h"
#include "common/ExitStatus.h"
#include "common/ServiceMessage.h"
#include "common/SystemBus.h"
#include "common/Text.h"
#include "qord/Report.h"
#include "qord/StopSignals.h"

namespace qord
{
namespace
{

constexpr int g_stopLimitMs = 2600;
constexpr std::chrono::milliseconds g_lastEventsLimit(1000); // for each of two
constexpr unsigned long g_repeatAfterUs = 50000;             // a request has been answered
constexpr unsigned int g_registrationMs = 1000; // the clients of a predecessor have registered

} // namespace

TCService::TCService(const TSOptions& options)
    : m_options(options),
      m_handler(TCPolicyStore(options.m_policyFile, options.m_storeRules), options.m_maxPolicySize),
      m_permission(options.m_permission),
      m_queries(m_options, m_handler, m_senders)
{
}

TCService::~TCService()
{
    m_announcer.reset();
    m_watchdog.reset();
    m_nameWatch.reset();
    m_server.reset();
    if (m_startAnnouncement != 0)
    {
        g_source_remove(m_startAnnouncement);
    }
    for (const unsigned int source : m_sources)
    {
        g_source_remove(source);
    }
}

int TCService::Run()
{
    // From the start, so that an early signal is not missed.
    const TCStopSignals stopSignals([this] { m_Quit(); }, g_stopLimitMs);
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN); // a write over the limit fails instead
    m_sources.push_back(g_unix_signal_add(SIGHUP, m_SayNothingToReload, this));
    m_sources.push_back(g_unix_signal_add(SIGUSR1, m_AskForProcessInfo, this));
    if (m_Start())
    {
        while (m_isRunning)
        {
            g_main_context_iteration(nullptr, TRUE);
            if (m_isRunning && m_server->IsReady())
            {
                m_Begin();
            }
        }
        m_Stop();
    }
    return m_exitStatus;
}

bool TCService::m_Start()
{
    std::string error;
    m_connection = tools::ConnectToSystemBus(error);
    if (!m_connection)
    {
        m_Fail("cannot reach the system bus: " + error);
        return false;
    }
    m_server = std::make_unique<qor::TCDbusServer>(m_options.m_testNames);
    if (m_server->GetUniqueName().empty())
    {
        m_Fail("cannot serve on the system bus");
        return false;
    }
    m_watchdog = std::make_unique<TCWatchdog>([this] { return m_queries.Summary(*m_server); });
    m_announcer = std::make_unique<TCAnnouncer>([this](int type) { m_Deliver(type); });
    m_AnswerWith(qor::SET_POLICY, &TCService::m_SetPolicy);
    m_AnswerWith(tools::GET_POLICY, &TCService::m_GetPolicy);
    m_AnswerWith(tools::GET_STATUS, &TCService::m_GetStatus);
    // The server has asked for the name before, on the same connection: the watch's first report
    // tells how that ended.
    m_nameWatch = std::make_unique<tools::TCNameWatch>(
        m_connection.get(), tools::ServiceName(m_options.m_testNames),
        tools::TCNameWatch::TSHandlers{
            [this](const std::string& owner) { m_OwnerIs(owner); },
            [this] { m_Fail(m_isReady ? "the bus name was lost" : "the bus name is not granted"); },
            [this] { m_Fail("the connection to the system bus is closed"); }});
    if (m_options.m_processInfoSeconds != 0)
    {
        m_sources.push_back(
            g_timeout_add_seconds(m_options.m_processInfoSeconds, m_AskForProcessInfo, this));
    }
    return true;
}

// Once the name is granted, and not before: a process that cannot serve creates no files. The first
// request may be dispatched together with that news.
bool TCService::m_Begin()
{
    if (m_isReady)
    {
        return true;
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
    m_isReady = true;
    Report("ready as %s (%s), policy file %s", tools::ServiceName(m_options.m_testNames),
           m_server->GetUniqueName().c_str(), m_options.m_policyFile.c_str());
    m_watchdog->Tell("READY=1\n");
    // The service before this one may have ended between a policy and its announcement.
    m_startAnnouncement = g_timeout_add(g_registrationMs, m_AnnounceStart, this);
    return true;
}

// Whatever the applications do, the name is free at once and the process gone not much later.
void TCService::m_Stop()
{
    sd_notify(0, "STOPPING=1");
    if (m_isAnnouncementDue)
    {
        m_announcer->Announce(qor::ICallbacks::POLICY_UPDATE);
    }
    // The reply to the last request must be out before the process ends.
    g_dbus_connection_flush_sync(m_connection.get(), nullptr, nullptr);
    if (m_announcer->Finish(std::chrono::milliseconds(0)))
    {
        return; // and the server's end gives up the name
    }
    m_GiveUpName();
    if (!m_announcer->Finish(g_lastEventsLimit))
    {
        m_server->CancelMessages(); // and the next event, if one is due, has its time
    }
    if (!m_announcer->Finish(g_lastEventsLimit))
    {
        ReportError("an application does not answer; what is left of the events is dropped");
    }
    // The server gives up the name only together with its events, and does not know that it has
    // gone already. Nothing else is left that needs an end.
    _exit(m_exitStatus);
}

void TCService::m_GiveUpName()
{
    g_dbus_connection_call(m_connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "ReleaseName",
                           g_variant_new("(s)", tools::ServiceName(m_options.m_testNames)), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    g_dbus_connection_flush_sync(m_connection.get(), nullptr, nullptr);
}

void TCService::m_Quit()
{
    m_isRunning = false;
    g_main_context_wakeup(nullptr);
}

void TCService::m_Fail(const std::string& reason)
{
    if (m_isRunning)
    {
        ReportError("%s", reason.c_str());
        m_exitStatus = tools::EXIT_REFUSED;
    }
    m_Quit();
}

void TCService::m_OwnerIs(const std::string& owner)
{
    if (owner != m_server->GetUniqueName())
    {
        m_Fail("the bus name belongs to another process (" + owner + ")");
    }
}

void TCService::m_AnswerWith(int type, THandler handler)
{
    m_server->SetCallback(type,
                          [this, handler](const qor::TByteArray& request, qor::TByteArray& reply)
                          { return m_Answer(handler, request, reply); });
}

// Runs inside the bus library, which takes no exception.
bool TCService::m_Answer(THandler handler, const qor::TByteArray& request,
                         qor::TByteArray& reply) noexcept
{
    ++m_begun;
    g_idle_add_full(G_PRIORITY_HIGH, m_HasAnswered, this, nullptr); // when the reply is out
    try
    {
        return m_Begin() && (this->*handler)(request, m_WhoAsks(), reply);
    }
    catch (const std::exception& exception)
    {
        ReportError("a request failed: %s", exception.what());
    }
    catch (...)
    {
        ReportError("a request failed");
    }
    return false;
}

TSAsker TCService::m_WhoAsks()
{
    TSAsker asker;
    asker.m_sender =
        m_senders.Find(m_connection.get(), m_server->GetCurrentSender(), asker.m_error);
    asker.m_mayChange = m_permission.MayChange(asker.m_sender);
    return asker;
}

bool TCService::m_MayRead(const TSAsker& asker) const
{
    return asker.m_mayChange || !m_options.m_permission.m_restrictReading;
}

bool TCService::m_SetPolicy(const qor::TByteArray& request, const TSAsker& asker,
                            qor::TByteArray& reply)
{
    int result = qor::POLICY_NOT_STORED;
    const bool isPolicy = m_handler.Handle(request, asker, reply, result);
    if (isPolicy && (result == qor::POLICY_STORED || result == qor::POLICY_STATE_UNKNOWN))
    {
        m_AnnounceAfterReply();
    }
    return isPolicy;
}

bool TCService::m_GetPolicy(const qor::TByteArray& request, const TSAsker& asker,
                            qor::TByteArray& reply)
{
    return m_queries.GetPolicy(request, m_MayRead(asker), reply);
}

bool TCService::m_GetStatus(const qor::TByteArray&, const TSAsker& asker, qor::TByteArray& reply)
{
    m_queries.GetStatus(m_connection.get(), *m_server, m_MayRead(asker), reply);
    return true;
}

// The sender still waits for the reply, and a client that waits is not called: the announcement
// begins when the context comes round again, after the reply.
void TCService::m_AnnounceAfterReply()
{
    if (!m_isAnnouncementDue)
    {
        m_isAnnouncementDue = true;
        g_idle_add_full(G_PRIORITY_DEFAULT, m_AnnouncePolicy, this, nullptr);
    }
}

std::size_t TCService::m_Suspended(int type)
{
    const auto clients = m_server->Clients();
    return static_cast<std::size_t>(std::count_if(clients.begin(), clients.end(),
                                                  [type](const auto& client) {
                                                      return client.m_isSuspended &&
                                                             client.m_types.count(type) != 0;
                                                  }));
}

// An application may hear an event twice, but none misses it because it was asking for something.
void TCService::m_Deliver(int type) noexcept
{
    try
    {
        const unsigned int ended = m_ended;
        const unsigned int begun = m_begun;
        auto counts = m_server->SendMessage(type, {}, m_options.m_eventTimeoutMs);
        const bool wasAnswering = begun != ended || begun != m_begun;
        if (wasAnswering && counts.second > m_Suspended(type))
        {
            // Who was just waiting for the reply to a request of its own has not been called.
            g_usleep(g_repeatAfterUs);
            counts = m_server->SendMessage(type, {}, m_options.m_eventTimeoutMs);
        }
        Report("event %s: %zu delivered, %zu failed", tools::EventName(type), counts.first,
               counts.second);
        m_queries.Delivered(
            {tools::EventName(type), std::time(nullptr), counts.first, counts.second});
        m_watchdog->Tell();
    }
    catch (const std::exception& exception)
    {
        ReportError("event %s failed: %s", tools::EventName(type), exception.what());
    }
}

int TCService::m_SayNothingToReload(void*)
{
    Report("SIGHUP changes nothing: there is no configuration to read again");
    return G_SOURCE_CONTINUE;
}

int TCService::m_AskForProcessInfo(void* pService)
{
    const auto& announcer = static_cast<TCService*>(pService)->m_announcer;
    if (announcer)
    {
        announcer->Announce(qor::ICallbacks::REQUEST_PROCESS_INFO);
    }
    return G_SOURCE_CONTINUE;
}

int TCService::m_AnnouncePolicy(void* pService)
{
    auto* pThis = static_cast<TCService*>(pService);
    pThis->m_isAnnouncementDue = false;
    pThis->m_announcer->Announce(qor::ICallbacks::POLICY_UPDATE);
    return G_SOURCE_REMOVE;
}

int TCService::m_HasAnswered(void* pService)
{
    ++static_cast<TCService*>(pService)->m_ended;
    return G_SOURCE_REMOVE;
}

int TCService::m_AnnounceStart(void* pService)
{
    auto* pThis = static_cast<TCService*>(pService);
    pThis->m_startAnnouncement = 0;
    pThis->m_announcer->Announce(qor::ICallbacks::POLICY_UPDATE);
    return G_SOURCE_REMOVE;
}

} // namespace qord
