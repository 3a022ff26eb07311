// A program run by a test, and the files of tests.
#ifndef QORTEST_CHILDPROCESS_H
#define QORTEST_CHILDPROCESS_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>

#include "MainContext.h"

namespace qortest
{

inline void WriteFile(const std::string& path, const std::string& content)
{
    if (!(std::ofstream(path, std::ios::binary) << content).flush())
    {
        throw std::runtime_error("cannot write " + path);
    }
}

/// Empty if there is none, or if it cannot be read, as that of a process that has just gone.
inline std::string ReadFile(const std::string& path)
{
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

inline std::size_t CountOf(const std::string& text, const std::string& part)
{
    std::vector<std::string> found;
    return boost::find_all(found, text, part).size();
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

    std::string Path(const std::string& name = "") const
    {
        return name.empty() ? m_path : m_path + "/" + name;
    }

    /// A file, with the directories above it; returns its path.
    std::string Write(const std::string& name, const std::string& content = "x") const
    {
        boost::filesystem::create_directories(boost::filesystem::path(Path(name)).parent_path());
        WriteFile(Path(name), content);
        return Path(name);
    }

private:
    std::string m_path = (boost::filesystem::temp_directory_path() / "qortest-XXXXXX").string();
};

struct ChildOptions
{
    std::map<std::string, std::string> environment; // added to this process's own
    std::string input;                              // what it finds on standard input
    bool keepInputOpen = false;                     // else the input ends after that text
    std::string workingDirectory = ".";
};

/// A state as in proc(5): S for asleep, T for stopped, Z for ended, as also one that is gone is.
inline bool AllThreadsAre(char state, pid_t process)
{
    const boost::filesystem::path tasks("/proc/" + std::to_string(process) + "/task");
    boost::system::error_code ended; // meanwhile
    bool areAll = true;
    for (boost::filesystem::directory_iterator task(tasks, ended), end; task != end;
         task.increment(ended))
    {
        const std::string status = ReadFile((task->path() / "stat").string());
        areAll = areAll && status.find(std::string(") ") + state + ' ') != std::string::npos;
    }
    return areAll;
}

/// Starts a program and collects what it prints. It dies with the thread that started it, and the
/// destructor kills it if it still runs.
class ChildProcess
{
public:
    using Options = ChildOptions;

    /// command[0] is a path or a name to look up. What cannot be started exits with 127.
    explicit ChildProcess(const std::vector<std::string>& command, const Options& options = {})
    {
        std::signal(SIGPIPE, SIG_IGN);
        const ObjectPtr<GSubprocessLauncher> launcher(
            g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDIN_PIPE));
        for (const auto& [name, value] : options.environment)
        {
            g_subprocess_launcher_setenv(launcher.get(), name.c_str(), value.c_str(), TRUE);
        }
        g_subprocess_launcher_set_cwd(launcher.get(), options.workingDirectory.c_str());
        g_subprocess_launcher_take_stdout_fd(launcher.get(), fcntl(m_out, F_DUPFD_CLOEXEC, 0));
        g_subprocess_launcher_take_stderr_fd(launcher.get(), fcntl(m_err, F_DUPFD_CLOEXEC, 0));
        const auto setUp = [](gpointer)
        {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::signal(SIGPIPE, SIG_DFL);
        };
        g_subprocess_launcher_set_child_setup(launcher.get(), setUp, nullptr, nullptr);
        std::vector<const char*> arguments;
        for (const std::string& argument : command)
        {
            arguments.push_back(argument.c_str());
        }
        arguments.push_back(nullptr);
        m_process.reset(g_subprocess_launcher_spawnv(launcher.get(), arguments.data(), nullptr));
        m_pid = IsRunning() ? std::stoi(g_subprocess_get_identifier(m_process.get())) : -1;
        WriteInput(options.input);
        if (m_process && !options.keepInputOpen)
        {
            g_output_stream_close(g_subprocess_get_stdin_pipe(m_process.get()), nullptr, nullptr);
        }
    }

    ~ChildProcess()
    {
        Signal(SIGKILL);
        Wait();
        close(m_out);
        close(m_err);
    }

    pid_t Pid() const
    {
        return m_pid;
    }

    bool IsRunning() const
    {
        return m_process && g_subprocess_get_identifier(m_process.get()) != nullptr;
    }

    /// One that stops has stopped when this returns: its threads may run on for a moment.
    void Signal(int signal)
    {
        if (m_process)
        {
            g_subprocess_send_signal(m_process.get(), signal);
        }
        if (signal == SIGSTOP)
        {
            WaitUntil([this] { return AllThreadsAre('T', m_pid); });
        }
    }

    /// Waits for the end; a program that still runs after the watchdog is killed.
    /// @return the exit code, 128 + the signal that ended it, or -1 when the watchdog had to
    int Wait(int watchdogMs = WATCHDOG_MS)
    {
        if (!WaitUntil([this] { return !IsRunning(); }, watchdogMs))
        {
            Signal(SIGKILL);
            g_subprocess_wait(m_process.get(), nullptr, nullptr);
            return -1;
        }
        GSubprocess* const pEnded = m_process.get();
        return pEnded == nullptr                    ? 127
               : g_subprocess_get_if_exited(pEnded) ? g_subprocess_get_exit_status(pEnded)
                                                    : 128 + g_subprocess_get_term_sig(pEnded);
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
        if (m_process)
        {
            g_output_stream_write_all(g_subprocess_get_stdin_pipe(m_process.get()), text.data(),
                                      text.size(), nullptr, nullptr, nullptr);
        }
    }

    /// The processes that it has started itself.
    std::vector<pid_t> Children() const
    {
        const std::string tasks = "/proc/" + std::to_string(m_pid) + "/task/";
        std::istringstream list(ReadFile(tasks + std::to_string(m_pid) + "/children"));
        return {std::istream_iterator<pid_t>(list), {}};
    }

private:
    // Files in memory: a program is never held up by a reader.
    const int m_out = memfd_create("out", MFD_CLOEXEC);
    const int m_err = memfd_create("err", MFD_CLOEXEC);
    ObjectPtr<GSubprocess> m_process;
    pid_t m_pid = -1;
};

} // namespace qortest

#endif
