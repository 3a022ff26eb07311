// qorctl listen: prints the service's events as they come.
#include <unistd.h>

#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>

#include <glib-unix.h>

#include <qor/ICallbacks.h>
#include <qor/QORDbus.h>

#include "common/Events.h"
#include "common/ExitStatus.h"
#include "common/Output.h"
#include "qorctl/Commands.h"
#include "qorctl/EventCommand.h"
#include "qorctl/EventPrinter.h"
#include "qorctl/Message.h"
#include "qorctl/ServiceCall.h"

namespace qorctl
{
namespace
{

constexpr int TYPES[] = {qor::ICallbacks::POLICY_UPDATE, qor::ICallbacks::REQUEST_PROCESS_INFO};

constexpr unsigned int ABSENT_AFTER_MS = 500;
constexpr unsigned int LAST_ANSWER_MS = 1000;
constexpr unsigned int LAST_ANSWER_STOPPED_MS = 200;
constexpr std::chrono::milliseconds TIME_TO_END(1000);

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
        m_endpoint = Endpoint(m_options);
        if (!m_IsOnBus())
        {
            return tools::EXIT_NOT_DELIVERED;
        }
        for (const int type : TYPES)
        {
            m_endpoint->SetCallback(type,
                                    [this, type](const qor::TByteArray&, qor::TByteArray&)
                                    {
                                        m_OnEvent(type);
                                        return true;
                                    });
        }
        const auto onState = [this](qor::EClientState state) { m_OnState(state); };
        const unsigned int observer = m_endpoint->AddStateCallback(onState);
        m_WatchProcess();
        m_Iterate([this] { return m_isListening; });
        m_Leave();
        m_endpoint->RemoveStateCallback(observer);
        if (m_failure)
        {
            std::rethrow_exception(m_failure);
        }
        return m_exitStatus;
    }

private:
    // An endpoint that has never been on the bus does not look for it.
    bool m_IsOnBus()
    {
        const auto endpoint = boost::dynamic_pointer_cast<qor::TCDbus>(m_endpoint);
        if (endpoint && !endpoint->GetUniqueName().empty())
        {
            return true;
        }
        SayError(WhyNot(m_endpoint->Call(TYPES[0], {}, 0, {})));
        return false;
    }

    void m_WatchProcess()
    {
        g_unix_signal_add(SIGINT, m_OnSignal, this);
        g_unix_signal_add(SIGTERM, m_OnSignal, this);
        // A reader that has gone is noticed at once, and not only at the next event.
        g_unix_fd_add(STDOUT_FILENO, G_IO_ERR, m_OnOutputClosed, this);
        g_timeout_add(ABSENT_AFTER_MS, m_OnAbsent, this);
        if (m_options.m_timeoutSeconds != 0)
        {
            const auto left = TimeLeft(std::chrono::seconds(m_options.m_timeoutSeconds));
            g_timeout_add(static_cast<unsigned int>(left.count()), m_OnTimeout, this);
            AllowToEnd(TIME_TO_END);
        }
    }

    template <class TCondition>
    void m_Iterate(const TCondition& goOn)
    {
        while (goOn())
        {
            g_main_context_iteration(nullptr, TRUE);
        }
    }

    // The answer to the last event must be sent before the process ends. It has been when the
    // service has confirmed a later Hello. The command of the last event may finish meanwhile.
    void m_Leave()
    {
        for (const int type : TYPES)
        {
            m_endpoint->UnSetCallback(type);
        }
        m_isSettled = !m_isRegistered;
        g_timeout_add(m_isStopped ? LAST_ANSWER_STOPPED_MS : LAST_ANSWER_MS, m_OnSettled, this);
        m_Iterate([this] { return !m_isSettled || (m_command && m_command->IsBusy()); });
    }

    // Ends the listening, and the command at once.
    void m_Stop()
    {
        m_isListening = false;
        m_isStopped = true;
        if (m_command)
        {
            m_command->Stop();
        }
    }

    // Runs inside the bus library, which takes no exception.
    template <class TPrint>
    void m_Try(const TPrint& print) noexcept
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
        const std::string event = tools::EventName(type);
        m_Try([&] { m_printer.Print(event, event); });
        if (m_command)
        {
            m_command->Run(event);
        }
        ++m_events;
        m_isListening = m_isListening && !m_HasAll();
    }

    bool m_HasAll() const
    {
        return m_options.m_eventCount != 0 && m_events >= m_options.m_eventCount;
    }

    void m_OnState(qor::EClientState state)
    {
        switch (state)
        {
        case qor::EClientState::SERVICE_APPEARED:
            m_wasThere = true;
            m_Tell("service-appeared", "service appeared");
            return;
        case qor::EClientState::REGISTERED:
            m_isSettled = true;
            if (!std::exchange(m_isRegistered, true))
            {
                m_Tell("registered", "registered for events");
            }
            return;
        case qor::EClientState::UNREGISTERED:
            SayError("the registration for events was refused, or not answered; it is repeated "
                     "until the service takes it");
            return;
        case qor::EClientState::SERVICE_VANISHED:
            m_isSettled = true;
            m_isRegistered = false;
            m_Tell("service-vanished", "service vanished");
            return;
        case qor::EClientState::BUS_LOST:
            m_Tell("bus-lost", "bus lost");
            return;
        case qor::EClientState::BUS_FOUND:
            m_Tell("bus-found", "bus found");
            return;
        }
    }

    void m_Tell(const char* event, const char* words)
    {
        if (m_isListening && !m_options.m_quiet)
        {
            m_Try([&] { m_printer.Print(event, words); });
        }
    }

    static int m_OnAbsent(void* pListener)
    {
        auto* pThis = static_cast<TCListener*>(pListener);
        if (!pThis->m_wasThere)
        {
            pThis->m_Tell("service-absent", "service is not on the bus yet");
        }
        return G_SOURCE_REMOVE;
    }

    static int m_OnSettled(void* pListener)
    {
        static_cast<TCListener*>(pListener)->m_isSettled = true;
        return G_SOURCE_REMOVE;
    }

    static int m_OnSignal(void* pListener)
    {
        static_cast<TCListener*>(pListener)->m_Stop();
        return G_SOURCE_REMOVE; // the next one ends the process wherever it is
    }

    static int m_OnOutputClosed(int, GIOCondition, void* pListener)
    {
        auto* pThis = static_cast<TCListener*>(pListener);
        pThis->m_Stop();
        pThis->m_Try([] { tools::Print("\n"); });
        return G_SOURCE_REMOVE;
    }

    static int m_OnTimeout(void* pListener)
    {
        auto* pThis = static_cast<TCListener*>(pListener);
        const unsigned int wanted = pThis->m_options.m_eventCount;
        if (wanted > pThis->m_events)
        {
            SayError("only " + std::to_string(pThis->m_events) + " of " + std::to_string(wanted) +
                     " events came in time");
            pThis->m_exitStatus = tools::EXIT_NOT_DELIVERED;
        }
        pThis->m_Stop();
        return G_SOURCE_REMOVE;
    }

    const TSOptions& m_options;
    TCEventPrinter m_printer;
    std::optional<TCEventCommand> m_command;
    boost::shared_ptr<qor::IDbusClient> m_endpoint;
    unsigned int m_events = 0;
    bool m_wasThere = false;
    bool m_isRegistered = false;
    bool m_isListening = true;
    bool m_isStopped = false; ///< Does not wait for the running command.
    bool m_isSettled = false; ///< Nothing of this process is on its way to the service.
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
