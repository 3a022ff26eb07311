// A program run by a test.
#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include <boost/filesystem.hpp>

extern "C" char** environ;

namespace qortest
{

namespace
{

using Clock = std::chrono::steady_clock;

void Pipe(int (&ends)[2])
{
    if (pipe2(ends, O_CLOEXEC) != 0)
    {
        throw std::runtime_error("pipe2");
    }
}

std::vector<std::string> BuildEnvironment(const ChildProcess::Options& options)
{
    std::map<std::string, std::string> values;
    for (char** ppEntry = environ; *ppEntry != nullptr; ++ppEntry)
    {
        const std::string entry(*ppEntry);
        const std::size_t sign = entry.find('=');
        if (sign != std::string::npos)
        {
            values[entry.substr(0, sign)] = entry.substr(sign + 1);
        }
    }
    for (const std::string& name : options.unset)
    {
        values.erase(name);
    }
    for (const auto& [name, value] : options.environment)
    {
        values[name] = value;
    }
    std::vector<std::string> result;
    for (const auto& [name, value] : values)
    {
        result.push_back(name + "=" + value);
    }
    return result;
}

std::vector<char*> Pointers(std::vector<std::string>& strings)
{
    std::vector<char*> result;
    for (std::string& string : strings)
    {
        result.push_back(string.data());
    }
    result.push_back(nullptr);
    return result;
}

void WriteAll(int fd, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size())
    {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno != EINTR)
        {
            return; // the program has closed its input
        }
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
}

} // namespace

struct ChildProcess::Streams
{
    std::mutex mutex;
    std::condition_variable changed;
    std::string texts[2];
    bool open[2] = {true, true};
    int fds[2] = {-1, -1};

    ~Streams()
    {
        for (const int fd : fds)
        {
            if (fd >= 0)
            {
                close(fd);
            }
        }
    }

    bool ReadOnce(int index)
    {
        char buffer[65536];
        const ssize_t length = read(fds[index], buffer, sizeof buffer);
        if (length < 0 && errno == EINTR)
        {
            return true;
        }
        const std::lock_guard<std::mutex> lock(mutex);
        if (length > 0)
        {
            texts[index].append(buffer, static_cast<std::size_t>(length));
        }
        else
        {
            open[index] = false;
        }
        changed.notify_all();
        return length > 0;
    }

    void Run()
    {
        pollfd polls[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
        while (polls[0].fd >= 0 || polls[1].fd >= 0)
        {
            poll(polls, 2, -1);
            for (int index = 0; index < 2; ++index)
            {
                if (polls[index].fd >= 0 && polls[index].revents != 0 && !ReadOnce(index))
                {
                    polls[index].fd = -1;
                }
            }
        }
    }

    std::string Text(int index)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return texts[index];
    }

    bool WaitFor(int index, const std::string& part, int watchdogMs)
    {
        std::unique_lock<std::mutex> lock(mutex);
        const auto found = [&] { return texts[index].find(part) != std::string::npos; };
        changed.wait_for(lock, std::chrono::milliseconds(watchdogMs),
                         [&] { return found() || !open[index]; });
        return found();
    }
};

ChildProcess::ChildProcess(const std::vector<std::string>& command)
    : ChildProcess(command, Options())
{
}

ChildProcess::ChildProcess(const std::vector<std::string>& command, const Options& options)
    : m_pStreams(std::make_shared<Streams>()),
      m_pid(-1),
      m_input(-1),
      m_exitCode(-1),
      m_reaped(false)
{
    std::signal(SIGPIPE, SIG_IGN);
    std::vector<std::string> arguments(command);
    std::vector<std::string> environment = BuildEnvironment(options);
    const std::vector<char*> argumentPointers = Pointers(arguments);
    const std::vector<char*> environmentPointers = Pointers(environment);
    int in[2];
    int out[2];
    int err[2];
    Pipe(in);
    Pipe(out);
    Pipe(err);

    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const bool directoryOk =
            options.workingDirectory.empty() || chdir(options.workingDirectory.c_str()) == 0;
        if (getppid() == parent && directoryOk)
        {
            std::signal(SIGPIPE, SIG_DFL);
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            execvpe(argumentPointers[0], argumentPointers.data(), environmentPointers.data());
        }
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    m_input = in[1];
    m_pStreams->fds[0] = out[0];
    m_pStreams->fds[1] = err[0];
    if (m_pid < 0)
    {
        close(m_input);
        throw std::runtime_error("fork");
    }
    m_reader = std::thread([pStreams = m_pStreams] { pStreams->Run(); });
    WriteInput(options.input);
    if (!options.keepInputOpen)
    {
        CloseInput();
    }
}

ChildProcess::~ChildProcess()
{
    if (!m_reaped)
    {
        Signal(SIGKILL);
        Wait();
    }
    CloseInput();
    // A grandchild may hold the pipes open: then the reader is left to the end of the process.
    if (m_reader.joinable())
    {
        std::unique_lock<std::mutex> lock(m_pStreams->mutex);
        const bool ended = m_pStreams->changed.wait_for(
            lock, std::chrono::seconds(1),
            [&] { return !m_pStreams->open[0] && !m_pStreams->open[1]; });
        lock.unlock();
        ended ? m_reader.join() : m_reader.detach();
    }
}

pid_t ChildProcess::Pid() const
{
    return m_pid;
}

void ChildProcess::m_Reap(int status)
{
    m_reaped = true;
    m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool ChildProcess::IsRunning()
{
    int status = 0;
    if (!m_reaped && waitpid(m_pid, &status, WNOHANG) == m_pid)
    {
        m_Reap(status);
    }
    return !m_reaped;
}

void ChildProcess::Signal(int signal)
{
    if (IsRunning())
    {
        kill(m_pid, signal);
    }
}

int ChildProcess::Wait(int watchdogMs)
{
    const auto end = Clock::now() + std::chrono::milliseconds(watchdogMs);
    while (IsRunning() && Clock::now() < end)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (!m_reaped)
    {
        kill(m_pid, SIGKILL);
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_reaped = true;
        m_exitCode = -1;
    }
    std::unique_lock<std::mutex> lock(m_pStreams->mutex);
    m_pStreams->changed.wait_for(lock, std::chrono::seconds(2),
                                 [&] { return !m_pStreams->open[0] && !m_pStreams->open[1]; });
    return m_exitCode;
}

std::string ChildProcess::Out()
{
    return m_pStreams->Text(0);
}

std::string ChildProcess::Err()
{
    return m_pStreams->Text(1);
}

bool ChildProcess::WaitForOut(const std::string& part, int watchdogMs)
{
    return m_pStreams->WaitFor(0, part, watchdogMs);
}

bool ChildProcess::WaitForErr(const std::string& part, int watchdogMs)
{
    return m_pStreams->WaitFor(1, part, watchdogMs);
}

void ChildProcess::WriteInput(const std::string& text)
{
    if (m_input >= 0)
    {
        WriteAll(m_input, text);
    }
}

void ChildProcess::CloseInput()
{
    if (m_input >= 0)
    {
        close(m_input);
        m_input = -1;
    }
}

std::string OwnDirectory()
{
    return boost::filesystem::read_symlink("/proc/self/exe").parent_path().string();
}

TemporaryDirectory::TemporaryDirectory()
    : m_path((boost::filesystem::temp_directory_path() / "qortest-XXXXXX").string())
{
    if (mkdtemp(m_path.data()) == nullptr)
    {
        throw std::runtime_error("mkdtemp");
    }
}

TemporaryDirectory::~TemporaryDirectory()
{
    boost::system::error_code error;
    boost::filesystem::remove_all(m_path, error);
}

void WriteFile(const std::string& path, const std::string& content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    if (!file.flush())
    {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

} // namespace qortest
