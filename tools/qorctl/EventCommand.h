// Runs the user's command on each event.
#ifndef QORCTL_EVENTCOMMAND_H
#define QORCTL_EVENTCOMMAND_H

#include <deque>
#include <memory>
#include <string>

namespace qorctl
{

/// Starts the command without a shell and without waiting for it, one at a time. An event that
/// comes meanwhile waits until the command has ended; further ones of its kind are merged with it.
/// The default main context notices the end of a command; a failure is reported on standard error.
/// Each command runs in a process group of its own, and gets SIGTERM if this process has ended.
class TCEventCommand
{
public:
    /// @throws std::invalid_argument for a command whose quoting is wrong
    explicit TCEventCommand(const std::string& command);

    /// The event's name is in the command's environment as QOR_EVENT.
    void Run(const std::string& event);

    /// Whether a command is running, or due.
    bool IsBusy() const;

    /// Drops the events that wait and ends the running command with its process group: with
    /// SIGTERM, and half a second later with SIGKILL.
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
