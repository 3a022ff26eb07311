// SIGTERM and SIGINT: an orderly end, and a sure one.
#ifndef QORD_STOPSIGNALS_H
#define QORD_STOPSIGNALS_H

#include <functional>

namespace qord
{

/// One object per process, which handles both signals as long as it exists.
///
/// The first signal calls the function in the default main context. A second one has its default
/// action: it ends the process at once. If the process has not ended limitMs after the first one,
/// because the bus or the disk does not respond, it sends itself the second one.
class TCStopSignals
{
public:
    /// @param stop  called once, in the default main context; must not throw
    TCStopSignals(std::function<void()> stop, int limitMs);
    ~TCStopSignals();

    /// Calls the function now if a signal has come. For the thread of the default main context.
    void Take();

    TCStopSignals(const TCStopSignals&) = delete;
    TCStopSignals& operator=(const TCStopSignals&) = delete;

private:
    static int m_OnReadable(int descriptor, int condition, void* pSignals);

    std::function<void()> m_stop;
    unsigned int m_source;
};

} // namespace qord

#endif
