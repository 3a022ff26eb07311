// qorctl listen: prints the service's events as they come.
#include <memory>
#include <optional>
#include <stdexcept>

#include <gio/gio.h>
#include <glib-unix.h>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>

#include "common/Events.h"
#include "common/ExitStatus.h"
#include "common/NameWatch.h"
#include "common/SystemBus.h"
#include "qorctl/Commands.h"
#include "qorctl/EventCommand.h"
#include "qorctl/EventPrinter.h"
#include "qorctl/Message.h"

namespace qorctl
{
namespace
{

class TCListener
{
public:
    explicit TCListener(const TSOptions& options) : m_options(options), m_printer(options.m_json)
    {
        if (!options.m_eventCommand.empty())
        {
            m_command.emplace(options.m_eventCommand);
        }
        m_signals[0] = g_unix_signal_add(SIGINT, m_OnSignal, this);
        m_signals[1] = g_unix_signal_add(SIGTERM, m_OnSignal, this);
    }

    ~TCListener()
    {
        m_watch.reset();
        g_source_remove(m_signals[0]);
        g_source_remove(m_signals[1]);
    }

    TCListener(const TCListener&) = delete;
    TCListener& operator=(const TCListener&) = delete;

    int Run()
    {
        std::string error;
        m_connection = tools::ConnectToSystemBus(error);
        if (!m_connection)
        {
            SayError("there is no system bus: " + error);
            return tools::EXIT_NOT_DELIVERED;
        }
        // The first endpoint of the process decides on the names; the callbacks object shares it.
        const auto endpoint = qor::TCDbusClientProvider::Get(m_options.m_testNames);
        const auto callbacks = qor::TCCallbacksProxy::Instance();
        if (!m_Register(*callbacks))
        {
            SayError("the events could not be registered for");
            return tools::EXIT_NOT_DELIVERED;
        }
        m_WatchService();
        m_Iterate([this] { return m_isListening; });
        m_Leave(*callbacks);
        qor::TCCallbacksProxy::Destroy();
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

    void m_WatchService()
    {
        m_watch.emplace(
            m_connection.get(), tools::ServiceName(m_options.m_testNames),
            tools::TCNameWatch::TSHandlers{[this](const std::string& owner) { m_OnService(owner); },
                                           [this] { m_OnService(""); }, [this] { m_OnClosed(); }});
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
        g_dbus_connection_flush_sync(m_connection.get(), nullptr, nullptr);
        m_Iterate([this] { return !m_isSignalled && m_command && m_command->Running() != 0; });
    }

    void m_OnEvent(int type)
    {
        if (!m_isListening)
        {
            return;
        }
        m_printer.PrintEvent(tools::EventName(type));
        if (m_command)
        {
            m_command->Run(tools::EventName(type));
        }
        m_isListening = m_options.m_eventCount == 0 || ++m_events < m_options.m_eventCount;
    }

    // The endpoint's own watch was there first and has sent its registration: once that is out, the
    // line also says that events will come.
    void m_OnService(const std::string& owner)
    {
        g_dbus_connection_flush_sync(m_connection.get(), nullptr, nullptr);
        if (!m_options.m_quiet)
        {
            m_printer.PrintService(owner);
        }
    }

    void m_OnClosed()
    {
        if (m_isListening)
        {
            SayError("the connection to the system bus was closed");
            m_exitStatus = tools::EXIT_NOT_DELIVERED;
        }
        m_isListening = false;
    }

    static int m_OnSignal(void* pListener)
    {
        auto* pThis = static_cast<TCListener*>(pListener);
        pThis->m_isListening = false;
        pThis->m_isSignalled = true;
        return G_SOURCE_CONTINUE;
    }

    const TSOptions& m_options;
    TCEventPrinter m_printer;
    std::optional<TCEventCommand> m_command;
    qor::TGlibPtr<GDBusConnection> m_connection;
    std::optional<tools::TCNameWatch> m_watch;
    unsigned int m_signals[2] = {};
    unsigned int m_events = 0;
    bool m_isListening = true;
    bool m_isSignalled = false;
    int m_exitStatus = tools::EXIT_OK;
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
