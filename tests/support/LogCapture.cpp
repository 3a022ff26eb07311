// The platform log of a test program: keeps every line in memory.
#include "LogCapture.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include <dlog.h>

namespace qortest
{

namespace
{

struct Store
{
    std::mutex mutex;
    std::condition_variable added;
    std::vector<LogLine> lines;
};

Store& TheStore();

// A forked child logs too, and finds the store as no thread was using it.
Store* NewStore()
{
    pthread_atfork([] { TheStore().mutex.lock(); }, [] { TheStore().mutex.unlock(); },
                   [] { TheStore().mutex.unlock(); });
    return new Store;
}

// Never destroyed: the library also logs while the process's statics go down.
Store& TheStore()
{
    static Store* const pStore = NewStore();
    return *pStore;
}

std::size_t CountLocked(const Store& store, int priority, const std::string& messagePart)
{
    return static_cast<std::size_t>(std::count_if(
        store.lines.begin(), store.lines.end(),
        [&](const LogLine& line)
        { return line.priority == priority && line.text.find(messagePart) != std::string::npos; }));
}

} // namespace

void LogCapture::Clear()
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.mutex);
    store.lines.clear();
}

std::vector<LogLine> LogCapture::Lines()
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.mutex);
    return store.lines;
}

std::size_t LogCapture::Count(int priority, const std::string& messagePart)
{
    Store& store = TheStore();
    const std::lock_guard<std::mutex> lock(store.mutex);
    return CountLocked(store, priority, messagePart);
}

bool LogCapture::WaitFor(int priority, const std::string& messagePart, int timeoutMs)
{
    Store& store = TheStore();
    std::unique_lock<std::mutex> lock(store.mutex);
    return store.added.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                [&] { return CountLocked(store, priority, messagePart) > 0; });
}

} // namespace qortest

int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
{
    const int savedErrno = errno;
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);

    qortest::Store& store = qortest::TheStore();
    {
        const std::lock_guard<std::mutex> lock(store.mutex);
        store.lines.push_back({log_id, priority, tag, text});
    }
    store.added.notify_all();
    errno = savedErrno;
    return length;
}
