// A program run by a test.
#ifndef QORTEST_CHILDPROCESS_H
#define QORTEST_CHILDPROCESS_H

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qortest
{

/// Starts a program and collects what it prints. It dies with the thread that started it, and the
/// destructor kills it if it still runs.
class ChildProcess
{
public:
    struct Options
    {
        std::map<std::string, std::string>
            environment;                // added to, or replacing, this process's own
        std::vector<std::string> unset; // names removed from the environment
        std::string workingDirectory;   // empty: this process's own
        std::string input;              // what the program finds on standard input
        bool keepInputOpen = false;     // else the input ends after that text
    };

    /// command[0] is the program, a path or a name to look up. A program that cannot be started
    /// exits with 127.
    explicit ChildProcess(const std::vector<std::string>& command);
    ChildProcess(const std::vector<std::string>& command, const Options& options);
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const;
    bool IsRunning();
    void Signal(int signal);

    /// Waits for the end; a program that still runs after the watchdog is killed.
    /// @return the exit code, 128 + the signal that ended it, or -1 when the watchdog had to
    int Wait(int watchdogMs = 30000);

    /// What has been printed so far; complete once Wait has returned.
    std::string Out();
    std::string Err();

    /// Waits until the text has appeared on standard output (standard error); false after the
    /// watchdog or when the program has closed its output without it.
    bool WaitForOut(const std::string& part, int watchdogMs = 30000);
    bool WaitForErr(const std::string& part, int watchdogMs = 30000);

    void WriteInput(const std::string& text);
    void CloseInput();

private:
    struct Streams;

    void m_Reap(int status);

    std::shared_ptr<Streams> m_pStreams;
    std::thread m_reader;
    pid_t m_pid;
    int m_input;
    int m_exitCode;
    bool m_reaped;
};

/// The directory of the running test program, without a trailing slash.
std::string OwnDirectory();

/// A fresh directory under the system's temporary directory, removed with all its content.
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();

    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& Path() const
    {
        return m_path;
    }
    std::string Path(const std::string& name) const
    {
        return m_path + "/" + name;
    }

private:
    std::string m_path;
};

void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path); // empty if there is none

} // namespace qortest

#endif
