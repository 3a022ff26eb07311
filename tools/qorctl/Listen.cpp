// qorctl listen: prints the service's events as they come.
#include <unistd.h>

#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>

#include <boost/shared_ptr.hpp>
#include <gio/gio.h>
#include <glib-unix.h>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>

#include "common/Events.h"
#include "common/ExitStatus.h"
#include "common/NameWatch.h"
#include "common/Output.h"
#include "common/SystemBus.h"
#include "qorctl/Await.h"
#include "qorctl/Commands.h"
#include "qorctl/EventCommand.h"
#include "qorctl/EventPrinter.h"
#include "qorctl/Message.h"
#include "qorctl/Registration.h"
#include "qorctl/ServiceCall.h"

namespace qorctl
{
namespace
{

constexpr std::chrono::milliseconds LAST_ANSWER_LIMIT(1000);

struct TSBus
{
    std::shared_ptr<GDBusConnection> m_connection; ///< Shared with a wait that may be given up.
    boost::shared_ptr<qor::IDbusClient> m_endpoint;
    std::string m_error;
};

TSBus Connect(bool testNames)
{
    TSBus bus;
    bus.m_connection = tools::ConnectToSystemBus(bus.m_error);
    if (bus.m_connection)
    {
        // The first endpoint of the process decides on the names; the callbacks object shares it.
        bus.m_endpoint = qor::TCDbusClientProvider::Get(testNames);
    }
    return bus;
}

class TCListener
{
public:
    explicit TCListener(const TSOptions& options) : m_options(options), m_printer(options.m_json)
    {
        if (!options.m_eventCommand.empty())
        {
            m_command.emplace(options.m_eventCommand);
        }
    }

    int Run()
    {
        const auto bus = Await(WaitLimit(m_options),
                               [testNames = m_options.m_testNames] { return Connect(testNames); });
        if (!bus || !bus->m_connection)
        {
            SayError(bus ? "there is no system bus: " + bus->m_error
                         : std::string("the system bus does not answer"));
            return tools::EXIT_NOT_DELIVERED;
        }
        m_connection = bus->m_connection;
        const auto callbacks = qor::TCCallbacksProxy::Instance();
        if (!m_Register(*callbacks))
        {
            SayError("the events could not be registered for");
            return tools::EXIT_NOT_DELIVERED;
        }
        m_WatchProcess();
        m_WatchService();
        m_Iterate([this] { return m_isListening; });
        m_Leave(*callbacks);
        qor::TCCallbacksProxy::Destroy();
        m_watch.reset();
        if (m_failure)
        {
            std::rethrow_exception(m_failure);
        }
        return m_exitStatus;
    }

private:
    bool m_Register(qor::ICallbacks& callbacks)
    {
        return callbacks.SetPolicyUpdateCb([this] { m_OnEvent(qor::ICallbacks::POLICY_UPDATE); }) &&
               callbacks.SetRequestProcessInfoCb(
                   [this]
                   {
                       m_OnEvent(qor::ICallbacks::REQUEST_PROCESS_INFO);
                       return true;
                   });
    }

    void m_WatchProcess()
    {
        g_unix_signal_add(SIGINT, m_OnSignal, this);
        g_unix_signal_add(SIGTERM, m_OnSignal, this);
        // A reader that has gone is noticed at once, and not only at the next event.
        g_unix_fd_add(STDOUT_FILENO, G_IO_ERR, m_OnOutputClosed, this);
        if (m_options.m_timeoutSeconds != 0)
        {
            g_timeout_add_seconds(m_options.m_timeoutSeconds, m_OnTimeout, this);
        }
    }

    void m_WatchService()
    {
        m_watch.emplace(m_connection.get(), tools::ServiceName(m_options.m_testNames),
                        tools::TCNameWatch::TSHandlers{
                            [this](const std::string& owner) { m_OnAppeared(owner); },
                            [this] { m_OnGone(); }, [this] { m_OnClosed(); }});
    }

    template <class TCondition>
    void m_Iterate(const TCondition& goOn)
    {
        while (goOn())
        {
            g_main_context_iteration(nullptr, TRUE);
        }
    }

    // The last event's answer must be out before the process ends, and its command has its time;
    // a signal cuts that short.
    void m_Leave(qor::ICallbacks& callbacks)
    {
        callbacks.ResetPolicyUpdateCb();
        callbacks.ResetRequestProcessInfoCb();
        Await(LAST_ANSWER_LIMIT, [connection = m_connection]
              { return g_dbus_connection_flush_sync(connection.get(), nullptr, nullptr); });
        m_Iterate([this] { return !m_isSignalled && m_command && m_command->IsBusy(); });
    }

    void m_End(int exitStatus)
    {
        m_exitStatus = exitStatus;
        m_isListening = false;
    }

    // Runs inside the bus library, which takes no exception.
    template <class TPrint>
    void m_Print(const TPrint& print) noexcept
    {
        try
        {
            print();
        }
        catch (...)
        {
            m_failure = std::current_exception();
            m_isListening = false;
        }
    }

    void m_OnEvent(int type)
    {
        if (!m_isListening)
        {
            return;
        }
        m_Print([this, type] { m_printer.PrintEvent(tools::EventName(type)); });
        if (m_command)
        {
            m_command->Run(tools::EventName(type));
        }
        ++m_events;
        m_isListening = m_isListening && !m_HasAll();
    }

    bool m_HasAll() const
    {
        return m_options.m_eventCount != 0 && m_events >= m_options.m_eventCount;
    }

    void m_OnAppeared(const std::string& owner)
    {
        m_wasThere = true;
        m_registration =
            TCRegistration::Start(m_connection.get(), m_options.m_testNames, owner,
                                  [this, owner](ERegistration result, const std::string& error)
                                  { m_OnRegistered(owner, result, error); });
    }

    void m_OnRegistered(const std::string& owner, ERegistration result, const std::string& error)
    {
        if (result == ERegistration::REFUSED)
        {
            SayError("the registration for events was refused: " + error);
            m_End(tools::EXIT_NOT_DELIVERED);
        }
        else if (result == ERegistration::UNANSWERED)
        {
            SayError("the service does not answer the registration for events: " + error);
        }
        else if (!m_options.m_quiet)
        {
            m_Print([this, &owner] { m_printer.PrintAppeared(owner); });
        }
    }

    void m_OnGone()
    {
        m_registration.reset();
        if (!m_options.m_quiet)
        {
            m_Print([this] { m_printer.PrintGone(m_wasThere); });
        }
    }

    void m_OnClosed()
    {
        if (m_isListening)
        {
            SayError("the connection to the system bus was closed");
            m_End(tools::EXIT_NOT_DELIVERED);
        }
    }

    static int m_OnSignal(void* pListener)
    {
        auto* pThis = static_cast<TCListener*>(pListener);
        pThis->m_isListening = false;
        pThis->m_isSignalled = true;
        return G_SOURCE_REMOVE; // the next one ends the process wherever it is
    }

    static int m_OnOutputClosed(int, GIOCondition, void* pListener)
    {
        auto* pThis = static_cast<TCListener*>(pListener);
        pThis->m_isSignalled = true;
        pThis->m_Print([] { tools::Print("\n"); });
        return G_SOURCE_REMOVE;
    }

    static int m_OnTimeout(void* pListener)
    {
        auto* pThis = static_cast<TCListener*>(pListener);
        const unsigned int wanted = pThis->m_options.m_eventCount;
        if (wanted != 0)
        {
            SayError("only " + std::to_string(pThis->m_events) + " of " + std::to_string(wanted) +
                     " events came in time");
        }
        pThis->m_End(wanted == 0 ? tools::EXIT_OK : tools::EXIT_NOT_DELIVERED);
        return G_SOURCE_REMOVE;
    }

    const TSOptions& m_options;
    TCEventPrinter m_printer;
    std::optional<TCEventCommand> m_command;
    std::shared_ptr<GDBusConnection> m_connection;
    std::optional<tools::TCNameWatch> m_watch;
    std::shared_ptr<TCRegistration> m_registration;
    unsigned int m_events = 0;
    bool m_wasThere = false;
    bool m_isListening = true;
    bool m_isSignalled = false;
    int m_exitStatus = tools::EXIT_OK;
    std::exception_ptr m_failure;
};

} // namespace

int Listen(const TSOptions& options)
{
    std::unique_ptr<TCListener> listener;
    try
    {
        listener = std::make_unique<TCListener>(options);
    }
    catch (const std::invalid_argument& exception)
    {
        SayError(std::string("--exec: ") + exception.what());
        return tools::EXIT_WRONG_USAGE;
    }
    return listener->Run();
}

} // namespace qorctl
