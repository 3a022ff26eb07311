// SIGTERM and SIGINT: an orderly end, and a sure one.
#include "qord/StopSignals.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <system_error>
#include <utility>

#include <glib-unix.h>

namespace qord
{
namespace
{

// For the handlers, which may run at any point of any thread.
int g_wakeUp = -1;
timer_t g_timer = {};
itimerspec g_limit = {};

void OnStop(int)
{
    const int savedErrno = errno;
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGINT, SIG_DFL);
    timer_settime(g_timer, 0, &g_limit, nullptr);
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(g_wakeUp, &one, sizeof one);
    errno = savedErrno;
}

void Handle(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART; // no write to the disk is interrupted
    sigaction(signal, &action, nullptr);
}

} // namespace

TCStopSignals::TCStopSignals(std::function<void()> stop, int limitMs) : m_stop(std::move(stop))
{
    sigevent second = {};
    second.sigev_notify = SIGEV_SIGNAL;
    second.sigev_signo = SIGTERM;
    g_wakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (g_wakeUp < 0 || timer_create(CLOCK_MONOTONIC, &second, &g_timer) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "preparing for signals");
    }
    g_limit.it_value = {limitMs / 1000, limitMs % 1000 * 1000000L};
    m_source =
        g_unix_fd_add(g_wakeUp, G_IO_IN, reinterpret_cast<GUnixFDSourceFunc>(m_OnReadable), this);
    Handle(SIGTERM, OnStop);
    Handle(SIGINT, OnStop);
}

TCStopSignals::~TCStopSignals()
{
    Handle(SIGTERM, SIG_DFL);
    Handle(SIGINT, SIG_DFL);
    g_source_remove(m_source);
    close(g_wakeUp);
    timer_delete(g_timer);
}

void TCStopSignals::Take()
{
    std::uint64_t count = 0;
    if (read(g_wakeUp, &count, sizeof count) > 0)
    {
        m_stop();
    }
}

int TCStopSignals::m_OnReadable(int, int, void* pSignals)
{
    static_cast<TCStopSignals*>(pSignals)->Take();
    return G_SOURCE_CONTINUE;
}

} // namespace qord
