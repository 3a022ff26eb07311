/* The platform log on a host: one datagram per line to the local syslog socket. */
#include <dlog.h>

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

/* Longer lines are cut off. A pipe takes this much in one piece or not at all. */
#define LINE_SIZE PIPE_BUF

/* If there is no log socket, it is not looked for again for this long: otherwise a lost line would
   cost as much as one that arrives. */
#define ABSENCE_MS 100U

enum Sink
{
    SINK_UNDECIDED,
    SINK_SYSLOG,
    SINK_STDERR
};

static atomic_int log_sink = SINK_UNDECIDED;
static atomic_int log_socket = -1;
static atomic_uint absent_since; /* when the socket was last found missing; 0: never */
static pthread_mutex_t stderr_mutex = PTHREAD_MUTEX_INITIALIZER;

/* Decided at the first line, so that the environment is not read while the host changes it. */
static int choose_sink(void)
{
    int sink = atomic_load(&log_sink);
    if (sink == SINK_UNDECIDED)
    {
        /* NOLINTNEXTLINE(concurrency-mt-unsafe): see above */
        const char* wanted = getenv("QOR_DLOG");
        sink = wanted != NULL && strcmp(wanted, "stderr") == 0 ? SINK_STDERR : SINK_SYSLOG;
        atomic_store(&log_sink, sink);
    }
    return sink;
}

static int syslog_severity(int priority)
{
    switch (priority)
    {
    case DLOG_INFO:
        return LOG_INFO;
    case DLOG_WARN:
        return LOG_WARNING;
    case DLOG_ERROR:
        return LOG_ERR;
    default:
        return priority >= DLOG_FATAL ? LOG_CRIT : LOG_DEBUG;
    }
}

static char priority_letter(int priority)
{
    static const char letters[] = "DIWEF";
    if (priority < DLOG_DEBUG)
    {
        return letters[0];
    }
    return letters[priority > DLOG_FATAL ? DLOG_FATAL - DLOG_DEBUG : priority - DLOG_DEBUG];
}

/* The number of bytes that a formatting call has put into a buffer of that size; 0 if it failed. */
static size_t stored(int result, size_t size)
{
    if (result < 0)
    {
        return 0;
    }
    return (size_t)result < size ? (size_t)result : size - 1;
}

/* A reader that has gone, or a file at its size limit, must not end the host: the signal goes to
   this thread, where it is blocked and taken back. A signal that was pending before stays pending.
 */
static ssize_t write_without_signals(const char* line, size_t length)
{
    sigset_t signals, before, pending;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    sigaddset(&signals, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &signals, &before);
    sigpending(&pending);
    const ssize_t written = write(STDERR_FILENO, line, length);
    if (written < 0 && (errno == EPIPE || errno == EFBIG))
    {
        const int caused = errno == EPIPE ? SIGPIPE : SIGXFSZ;
        const struct timespec at_once = {0, 0};
        sigemptyset(&signals);
        sigaddset(&signals, caused);
        if (!sigismember(&pending, caused))
        {
            sigtimedwait(&signals, NULL, &at_once);
        }
    }
    pthread_sigmask(SIG_SETMASK, &before, NULL);
    return written;
}

/* The mutex keeps our own threads from filling the pipe between the question and the write. */
static ssize_t write_to_stderr(const char* line, size_t length)
{
    struct pollfd target = {.fd = STDERR_FILENO, .events = POLLOUT};
    ssize_t written = -1;
    pthread_mutex_lock(&stderr_mutex);
    if (poll(&target, 1, 0) == 1 && target.revents == POLLOUT)
    {
        written = write_without_signals(line, length);
    }
    pthread_mutex_unlock(&stderr_mutex);
    return written;
}

/* Milliseconds of a clock that costs no system call; it wraps around. Never 0. */
static unsigned int now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
    return ((unsigned int)time.tv_sec * 1000U + (unsigned int)(time.tv_nsec / 1000000)) | 1U;
}

static bool is_known_absent(void)
{
    const unsigned int since = atomic_load_explicit(&absent_since, memory_order_relaxed);
    return since != 0 && now() - since < ABSENCE_MS;
}

static int open_socket(void)
{
    int fd = atomic_load(&log_socket);
    if (fd >= 0)
    {
        return fd;
    }
    const int fresh = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fresh < 0)
    {
        return -1;
    }
    int expected = -1;
    if (atomic_compare_exchange_strong(&log_socket, &expected, fresh))
    {
        return fresh;
    }
    close(fresh); /* another thread was first */
    return expected;
}

/* The socket is never connected: each line finds the log daemon by its path, so a daemon that has
   been restarted gets the next line, or the first one after ABSENCE_MS if its socket was gone. */
static ssize_t write_to_syslog(const char* line, size_t length)
{
    static const struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "/dev/log"};
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        int fd = open_socket();
        if (fd < 0)
        {
            return -1;
        }
        const ssize_t sent = sendto(fd, line, length, MSG_DONTWAIT | MSG_NOSIGNAL,
                                    (const struct sockaddr*)&address, (socklen_t)sizeof address);
        atomic_store_explicit(&absent_since, sent < 0 && errno == ENOENT ? now() : 0U,
                              memory_order_relaxed);
        if (sent >= 0 || (errno != EBADF && errno != ENOTSOCK && errno != EISCONN))
        {
            return sent;
        }
        /* The host has closed our descriptor under us, as daemons do; it is no longer ours. */
        atomic_compare_exchange_strong(&log_socket, &fd, -1);
    }
    return -1;
}

int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    const int saved_errno = errno;
    char line[LINE_SIZE];
    const int sink = choose_sink();
    if (sink == SINK_SYSLOG && is_known_absent())
    {
        return 0;
    }
    const char* name = tag != NULL ? tag : "";

    int result;
    if (sink == SINK_STDERR)
    {
        result = snprintf(line, sizeof line, "%c/%s(%d): ", priority_letter(priority), name,
                          (int)getpid());
    }
    else
    {
        const int facility = log_id == LOG_ID_MAIN ? LOG_USER : LOG_DAEMON;
        result = snprintf(line, sizeof line, "<%d>%s[%d]: ", facility | syslog_severity(priority),
                          name, (int)getpid());
    }
    size_t length = stored(result, sizeof line);

    va_list arguments;
    va_start(arguments, format);
    result = vsnprintf(line + length, sizeof line - length, format, arguments);
    va_end(arguments);
    length += stored(result, sizeof line - length);

    ssize_t written;
    if (sink == SINK_STDERR)
    {
        line[length++] = '\n'; /* takes the terminator's place */
        written = write_to_stderr(line, length);
    }
    else
    {
        written = write_to_syslog(line, length);
    }
    errno = saved_errno;
    return written > 0 ? (int)written : 0;
}

/* A forked child can log, too, even if a thread of its parent was just writing. */
static void free_mutex_in_child(void)
{
    const pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
    stderr_mutex = fresh;
}

__attribute__((constructor)) static void watch_for_forks(void)
{
    pthread_atfork(NULL, NULL, &free_mutex_in_child);
}

/* Closes the descriptor when this library is unloaded. */
__attribute__((destructor)) static void close_socket(void)
{
    const int fd = atomic_exchange(&log_socket, -1);
    if (fd >= 0)
    {
        close(fd);
    }
}
