// The text sinks of the log. Their failures do not reach the host.
#include "QORSink.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <ios>
#include <optional>

namespace qor
{

namespace
{

constexpr mode_t LOG_FILE_MODE = 0666; // less the umask

// Keeps the signals of failed writes from the host: that of a pipe that nobody reads, and that of a
// file at its size limit. The kernel sends both to the writing thread. So they are blocked there,
// and taken back after a write that has caused one; such signals of the host itself stay pending.
class TCWriteSignals
{
public:
    TCWriteSignals()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGPIPE);
        sigaddset(&signals, SIGXFSZ);
        sigemptyset(&m_pending);
        pthread_sigmask(SIG_BLOCK, &signals, &m_before);
        if (sigismember(&m_before, SIGPIPE) != 0 || sigismember(&m_before, SIGXFSZ) != 0)
        {
            sigpending(&m_pending);
        }
        errno = 0;
    }

    ~TCWriteSignals()
    {
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }

    TCWriteSignals(const TCWriteSignals&) = delete;
    TCWriteSignals& operator=(const TCWriteSignals&) = delete;

    // After the writes. Asks errno, since fwrite may succeed although the write below it has
    // failed; the stream drops the bytes that it could not write.
    void TakeBack() const
    {
        const int caused = errno == EPIPE ? SIGPIPE : errno == EFBIG ? SIGXFSZ : 0;
        if (caused == 0 || sigismember(&m_pending, caused) != 0)
        {
            return;
        }
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, caused);
        const timespec now = {};
        sigtimedwait(&signals, nullptr, &now);
    }

private:
    sigset_t m_before;  // the thread's mask
    sigset_t m_pending; // what the host has blocked, and not taken yet
};

bool HasFileSizeLimit()
{
    rlimit limit{};
    return getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur != RLIM_INFINITY;
}

// Holds a stream's own lock.
class TCStreamLock
{
public:
    explicit TCStreamLock(FILE* pFile) : m_pFile(pFile)
    {
        flockfile(m_pFile);
    }
    ~TCStreamLock()
    {
        funlockfile(m_pFile);
    }

    TCStreamLock(const TCStreamLock&) = delete;
    TCStreamLock& operator=(const TCStreamLock&) = delete;

private:
    FILE* m_pFile;
};

// How much standard output holds back, when all of that is ours. Guarded by the stream's lock,
// which the thread sanitizer does not see: hence atomic.
std::atomic<std::size_t> g_ownTail{0};

void FlushOwnTail()
{
    if (ftrylockfile(stdout) != 0)
    {
        return;
    }
    if (g_ownTail != 0 && __fpending(stdout) == g_ownTail)
    {
        const TCWriteSignals signals;
        std::fflush(stdout);
        signals.TakeBack();
    }
    funlockfile(stdout);
}

// At its end a process writes the bytes that standard output still holds. If these are only lines
// of the library, they are written here, so that this causes no signal either. Built before the
// library's other globals, so that it also writes the lines of their teardown. It also keeps the
// C++ streams in use until then, because their last user flushes standard output.
struct TSLastFlush
{
    std::ios_base::Init m_streams;

    ~TSLastFlush()
    {
        FlushOwnTail();
    }
};

__attribute__((init_priority(101))) const TSLastFlush g_lastFlush;

} // namespace

FILE* OpenLogFile(const char* path)
{
    const int descriptor =
        open(path, O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
             LOG_FILE_MODE);
    if (descriptor < 0)
    {
        return nullptr;
    }
    struct stat status;
    FILE* pFile = nullptr;
    if (fstat(descriptor, &status) == 0)
    {
        if (S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == geteuid())
        {
            pFile = fdopen(descriptor, "a+");
        }
        else
        {
            errno = EPERM;
        }
    }
    if (pFile == nullptr)
    {
        const int reason = errno;
        close(descriptor);
        errno = reason;
    }
    return pFile;
}

void PrintToFile(FILE* pFile, std::string_view line)
{
    const TCStreamLock lock(pFile);
    // One question to the kernel instead of two changes of the mask: the file is a regular one, and
    // writing there raises no signal but that of the limit.
    std::optional<TCWriteSignals> signals;
    if (HasFileSizeLimit())
    {
        signals.emplace();
    }
    fwrite_unlocked(line.data(), 1, line.size(), pFile);
    fflush_unlocked(pFile);
    if (signals)
    {
        signals->TakeBack();
    }
}

// A line that fits into the stream's buffer is not written yet, and cannot fail.
void PrintToStdout(std::string_view line)
{
    const TCStreamLock lock(stdout);
    const std::size_t before = __fpending(stdout);
    const bool isOurs = before == 0 || before == g_ownTail.load(std::memory_order_relaxed);
    std::size_t after = before + line.size();
    if (after < __fbufsize(stdout) && __flbf(stdout) == 0)
    {
        fwrite_unlocked(line.data(), 1, line.size(), stdout);
    }
    else
    {
        const TCWriteSignals signals;
        fwrite_unlocked(line.data(), 1, line.size(), stdout);
        signals.TakeBack();
        after = __fpending(stdout);
    }
    g_ownTail.store(isOurs ? after : 0, std::memory_order_relaxed);
}

} // namespace qor
