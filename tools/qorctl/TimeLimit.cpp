// The end of --timeout, which no command outlives.
#include "qorctl/TimeLimit.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <optional>

#include "common/ExitStatus.h"

namespace qorctl
{
namespace
{

using TClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds MOMENT(300);

std::optional<TClock::time_point> g_end;
std::atomic<const char*> g_words = "the time is over";

void Write(const char* text)
{
    // If this fails, there is no way to report it.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, std::strlen(text));
}

// A signal's handler: the process may be inside anything.
void EndProcess(int)
{
    Write("qorctl: ");
    Write(g_words);
    Write("\n");
    _exit(tools::EXIT_NOT_DELIVERED);
}

} // namespace

void StartTimeLimit(unsigned int seconds)
{
    if (seconds == 0)
    {
        return;
    }
    g_end = TClock::now() + std::chrono::seconds(seconds);
    struct sigaction action = {};
    action.sa_handler = EndProcess;
    sigaction(SIGALRM, &action, nullptr);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr); // the caller may have blocked it
    AllowToEnd(MOMENT);
}

std::chrono::milliseconds TimeLeft(std::chrono::milliseconds atMost)
{
    if (!g_end)
    {
        return atMost;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*g_end - TClock::now());
    return std::clamp(left, std::chrono::milliseconds(0), atMost);
}

int MillisecondsLeft(std::chrono::milliseconds atMost)
{
    return static_cast<int>(TimeLeft(atMost).count());
}

void NameWait(const char* words)
{
    g_words = words;
}

void AllowToEnd(std::chrono::milliseconds moment)
{
    if (!g_end)
    {
        return;
    }
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(*g_end - TClock::now());
    const auto due = std::max(left + moment, std::chrono::microseconds(1));
    itimerval timer = {};
    timer.it_value.tv_sec = static_cast<time_t>(due / std::chrono::seconds(1));
    timer.it_value.tv_usec = static_cast<suseconds_t>((due % std::chrono::seconds(1)).count());
    setitimer(ITIMER_REAL, &timer, nullptr);
}

} // namespace qorctl
