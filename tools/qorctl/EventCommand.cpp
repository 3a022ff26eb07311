// Runs the user's command on each event.
#include "qorctl/EventCommand.h"

#include <algorithm>
#include <stdexcept>

#include <glib.h>
#include <sys/wait.h>

#include <qor/GlibTypes.h>

#include "qorctl/Message.h"

namespace qorctl
{
namespace
{

using TStrings = std::unique_ptr<char*, void (*)(char**)>;

TStrings SplitCommand(const std::string& command)
{
    char** pArguments = nullptr;
    GError* pError = nullptr;
    if (g_shell_parse_argv(command.c_str(), nullptr, &pArguments, &pError) == FALSE)
    {
        const qor::TGlibPtr<GError> error(pError);
        throw std::invalid_argument(error->message);
    }
    return TStrings(pArguments, g_strfreev);
}

} // namespace

TCEventCommand::TCEventCommand(const std::string& command) : m_arguments(SplitCommand(command)) {}

void TCEventCommand::Run(const std::string& event)
{
    if (std::find(m_waiting.begin(), m_waiting.end(), event) == m_waiting.end())
    {
        m_waiting.push_back(event);
    }
    m_StartNext();
}

bool TCEventCommand::IsBusy() const
{
    return m_isRunning || !m_waiting.empty();
}

void TCEventCommand::m_StartNext()
{
    while (!m_isRunning && !m_waiting.empty())
    {
        m_isRunning = m_Start(m_waiting.front());
        m_waiting.pop_front();
    }
}

bool TCEventCommand::m_Start(const std::string& event)
{
    const TStrings environment(g_environ_setenv(g_get_environ(), "QOR_EVENT", event.c_str(), TRUE),
                               g_strfreev);
    GPid processId = 0;
    GError* pError = nullptr;
    const auto flags = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD);
    if (g_spawn_async(nullptr, m_arguments.get(), environment.get(), flags, nullptr, nullptr,
                      &processId, &pError) == FALSE)
    {
        const qor::TGlibPtr<GError> error(pError);
        SayError(std::string("the command could not be run: ") + error->message);
        return false;
    }
    g_child_watch_add(processId, m_Ended, this);
    return true;
}

void TCEventCommand::m_Ended(int processId, int waitStatus, void* pCommand)
{
    g_spawn_close_pid(processId);
    if (WIFSIGNALED(waitStatus))
    {
        SayError("the command was ended by signal " + std::to_string(WTERMSIG(waitStatus)));
    }
    else if (WEXITSTATUS(waitStatus) != 0)
    {
        SayError("the command ended with status " + std::to_string(WEXITSTATUS(waitStatus)));
    }
    auto* pThis = static_cast<TCEventCommand*>(pCommand);
    pThis->m_isRunning = false;
    pThis->m_StartNext();
}

} // namespace qorctl
