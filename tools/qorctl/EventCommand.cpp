// Runs the user's command on each event.
#include "qorctl/EventCommand.h"

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <utility>

#include <glib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <qor/GlibTypes.h>

#include "qorctl/Message.h"

namespace qorctl
{
namespace
{

constexpr unsigned int PATIENCE_MS = 500;

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

// In the child, before the command.
void Prepare(void*)
{
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
}

} // namespace

TCEventCommand::TCEventCommand(const std::string& command) : m_arguments(SplitCommand(command)) {}

void TCEventCommand::Run(const std::string& event)
{
    const bool isDue = std::find(m_waiting.begin(), m_waiting.end(), event) != m_waiting.end();
    if (!isDue && !m_isStopped)
    {
        m_waiting.push_back(event);
    }
    m_StartNext();
}

bool TCEventCommand::IsBusy() const
{
    return m_processId != 0 || !m_waiting.empty();
}

void TCEventCommand::m_StartNext()
{
    while (m_processId == 0 && !m_waiting.empty())
    {
        m_Start(m_waiting.front());
        m_waiting.pop_front();
    }
}

void TCEventCommand::m_Start(const std::string& event)
{
    const TStrings environment(g_environ_setenv(g_get_environ(), "QOR_EVENT", event.c_str(), TRUE),
                               g_strfreev);
    GError* pError = nullptr;
    const auto flags = static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD);
    if (g_spawn_async(nullptr, m_arguments.get(), environment.get(), flags, Prepare, nullptr,
                      &m_processId, &pError) == FALSE)
    {
        const qor::TGlibPtr<GError> error(pError);
        SayError(std::string("the command could not be run: ") + error->message);
        m_processId = 0;
        return;
    }
    g_child_watch_add(m_processId, m_Ended, this);
}

void TCEventCommand::Stop()
{
    m_waiting.clear();
    if (!std::exchange(m_isStopped, true) && m_processId != 0)
    {
        kill(-m_processId, SIGTERM);
        g_timeout_add(PATIENCE_MS, m_Kill, this);
    }
}

int TCEventCommand::m_Kill(void* pCommand)
{
    const int processId = static_cast<TCEventCommand*>(pCommand)->m_processId;
    if (processId != 0)
    {
        kill(-processId, SIGKILL);
    }
    return G_SOURCE_REMOVE;
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
    pThis->m_processId = 0;
    if (pThis->m_isStopped)
    {
        kill(-processId, SIGKILL); // the rest of its group
    }
    pThis->m_StartNext();
}

} // namespace qorctl
