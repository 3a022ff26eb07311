// A program run by a test, and the files of tests.
#ifndef QORTEST_CHILDPROCESS_H
#define QORTEST_CHILDPROCESS_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "MainContext.h"

namespace qortest
{

inline void WriteFile(const std::string& path, const std::string& content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!(file << content).flush())
    {
        throw std::runtime_error("cannot write " + path);
    }
}

/// Empty if there is none.
inline std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/// A fresh directory under the system's temporary directory, removed with all its content.
class TemporaryDirectory
{
public:
    TemporaryDirectory()
    {
        if (mkdtemp(m_path.data()) == nullptr)
        {
            throw std::runtime_error("mkdtemp");
        }
    }
    ~TemporaryDirectory()
    {
        boost::system::error_code error;
        boost::filesystem::remove_all(m_path, error);
    }

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
    std::string m_path = (boost::filesystem::temp_directory_path() / "qortest-XXXXXX").string();
};

/// Starts a program and collects what it prints. It dies with the thread that started it, and the
/// destructor kills it if it still runs.
class ChildProcess
{
public:
    struct Options
    {
        std::map<std::string, std::string> environment; // added to this process's own
        std::string input;                              // what it finds on standard input
        bool keepInputOpen = false;                     // else the input ends after that text
    };

    /// command[0] is a path or a name to look up. What cannot be started exits with 127.
    explicit ChildProcess(const std::vector<std::string>& command)
        : ChildProcess(command, Options())
    {
    }

    ChildProcess(const std::vector<std::string>& command, const Options& options)
    {
        std::signal(SIGPIPE, SIG_IGN);
        gchar** environment = g_get_environ();
        for (const auto& [name, value] : options.environment)
        {
            environment = g_environ_setenv(environment, name.c_str(), value.c_str(), TRUE);
        }
        std::vector<char*> arguments;
        for (const std::string& argument : command)
        {
            arguments.push_back(const_cast<char*>(argument.c_str()));
        }
        arguments.push_back(nullptr);
        int in[2];
        const pid_t parent = getpid();
        if (pipe2(in, O_CLOEXEC) != 0 || (m_pid = fork()) < 0)
        {
            throw std::runtime_error("cannot start a process");
        }
        if (m_pid == 0)
        {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::signal(SIGPIPE, SIG_DFL);
            dup2(in[0], STDIN_FILENO);
            dup2(m_out, STDOUT_FILENO);
            dup2(m_err, STDERR_FILENO);
            if (getppid() == parent)
            {
                execvpe(arguments[0], arguments.data(), environment);
            }
            _exit(127);
        }
        g_strfreev(environment);
        close(in[0]);
        m_input = in[1];
        WriteInput(options.input);
        if (!options.keepInputOpen)
        {
            close(std::exchange(m_input, -1));
        }
    }

    ~ChildProcess()
    {
        Signal(SIGKILL);
        Wait();
        for (const int fd : {m_out, m_err, m_input})
        {
            close(fd);
        }
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const
    {
        return m_pid;
    }

    bool IsRunning()
    {
        int status = 0;
        if (!m_reaped && waitpid(m_pid, &status, WNOHANG) == m_pid)
        {
            m_reaped = true;
            m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return !m_reaped;
    }

    void Signal(int signal)
    {
        if (IsRunning())
        {
            kill(m_pid, signal);
        }
    }

    /// Waits for the end; a program that still runs after the watchdog is killed.
    /// @return the exit code, 128 + the signal that ended it, or -1 when the watchdog had to
    int Wait(int watchdogMs = WATCHDOG_MS)
    {
        if (!WaitUntil([this] { return !IsRunning(); }, watchdogMs))
        {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_reaped = true;
        }
        return m_exitCode;
    }

    /// What has been printed so far; complete once Wait has returned.
    std::string Out() const
    {
        return ReadFile("/proc/self/fd/" + std::to_string(m_out));
    }
    std::string Err() const
    {
        return ReadFile("/proc/self/fd/" + std::to_string(m_err));
    }

    /// Waits until the text is on standard output; false after the watchdog or the program's end.
    bool WaitForOut(const std::string& part, int watchdogMs = WATCHDOG_MS)
    {
        const auto found = [&] { return Out().find(part) != std::string::npos; };
        WaitUntil([&] { return found() || !IsRunning(); }, watchdogMs);
        return found();
    }

    void WriteInput(const std::string& text)
    {
        ssize_t written = 0; // negative when the program has closed its input
        for (std::size_t done = 0; done < text.size() && written >= 0;)
        {
            written = write(m_input, text.data() + done, text.size() - done);
            done += static_cast<std::size_t>(written);
        }
    }

private:
    // Files in memory: a program is never held up by a reader.
    const int m_out = memfd_create("out", MFD_CLOEXEC);
    const int m_err = memfd_create("err", MFD_CLOEXEC);
    int m_input = -1;
    pid_t m_pid = -1;
    int m_exitCode = -1;
    bool m_reaped = false;
};

} // namespace qortest

#endif
