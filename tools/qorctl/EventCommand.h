// Runs the user's command on each event.
#ifndef QORCTL_EVENTCOMMAND_H
#define QORCTL_EVENTCOMMAND_H

#include <cstddef>
#include <memory>
#include <string>

namespace qorctl
{

/// Starts the command without a shell and without waiting for it; its end is noticed in the
/// process's default main context, and a failure is reported on standard error.
class TCEventCommand
{
public:
    /// @throws std::invalid_argument for a command whose quoting is wrong
    explicit TCEventCommand(const std::string& command);

    /// The event's name is in the command's environment as QOR_EVENT.
    void Run(const char* event);

    /// How many commands have been started and not yet ended.
    std::size_t Running() const;

private:
    static void m_Ended(int processId, int waitStatus, void* pCommand);

    std::unique_ptr<char*, void (*)(char**)> m_arguments;
    std::size_t m_running = 0;
};

} // namespace qorctl

#endif
