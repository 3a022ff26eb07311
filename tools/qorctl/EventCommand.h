// Runs the user's command on each event.
#ifndef QORCTL_EVENTCOMMAND_H
#define QORCTL_EVENTCOMMAND_H

#include <deque>
#include <memory>
#include <string>

namespace qorctl
{

/// Starts the command without a shell and without waiting for it, one at a time. An event that
/// comes meanwhile waits until the command has ended; a second one of its kind is merged with it.
/// The end is noticed in the process's default main context, and a failure is reported on standard
/// error. Each runs in a process group of its own, and is asked to end (SIGTERM) where this process
/// has ended.
class TCEventCommand
{
public:
    /// @throws std::invalid_argument for a command whose quoting is wrong
    explicit TCEventCommand(const std::string& command);

    /// The event's name is in the command's environment as QOR_EVENT.
    void Run(const std::string& event);

    /// Whether a command is running, or due.
    bool IsBusy() const;

    /// Drops what is due and ends what runs, by SIGTERM at first and by SIGKILL half a second
    /// later. What it has started in its group ends with it.
    void Stop();

private:
    void m_Start(const std::string& event);
    void m_StartNext();
    static void m_Ended(int processId, int waitStatus, void* pCommand);
    static int m_Kill(void* pCommand);

    std::unique_ptr<char*, void (*)(char**)> m_arguments;
    std::deque<std::string> m_waiting;
    int m_processId = 0; ///< 0: none runs.
    bool m_isStopped = false;
};

} // namespace qorctl

#endif
