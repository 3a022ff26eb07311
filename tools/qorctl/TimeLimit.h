// The end of --timeout, which no command outlives.
#ifndef QORCTL_TIMELIMIT_H
#define QORCTL_TIMELIMIT_H

#include <chrono>

namespace qorctl
{

/// The longest wait of the library, without --timeout.
constexpr std::chrono::milliseconds USUAL_WAIT(10000);

/// Limits the time of the process from now on, in seconds; 0: no limit. Call once, before any
/// thread is started.
///
/// Code that waits should wait for TimeLeft, and report the end of the time itself. For waits
/// without a limit, the process is ended a moment later, with a line on standard error and
/// EXIT_NOT_DELIVERED.
void StartTimeLimit(unsigned int seconds);

/// The time that is left, but at most atMost.
std::chrono::milliseconds TimeLeft(std::chrono::milliseconds atMost = USUAL_WAIT);

/// The same for the library.
int MillisecondsLeft(std::chrono::milliseconds atMost = USUAL_WAIT);

/// Sets the words of this line; they must stay valid.
void NameWait(const char* words);

/// The process needs this moment to end in order when the time is over.
void AllowToEnd(std::chrono::milliseconds moment);

} // namespace qorctl

#endif
