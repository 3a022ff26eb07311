// The end of --timeout, which no command outlives.
#ifndef QORCTL_TIMELIMIT_H
#define QORCTL_TIMELIMIT_H

#include <chrono>

namespace qorctl
{

/// What a wait of the library takes at most, where nothing is said.
constexpr std::chrono::milliseconds USUAL_WAIT(10000);

/// From here on the process has so many seconds; 0: without end. Call once, before any thread is
/// started.
///
/// Whoever waits takes the time that is left, and says in its own words that it is over. For the
/// waits that know no limit the process is ended a moment later, with a line on standard error and
/// EXIT_NOT_DELIVERED.
void StartTimeLimit(unsigned int seconds);

/// What is left, and no more than that.
std::chrono::milliseconds TimeLeft(std::chrono::milliseconds atMost = USUAL_WAIT);

/// The same for the library.
int MillisecondsLeft(std::chrono::milliseconds atMost = USUAL_WAIT);

/// What the line says; it must stay valid.
void NameWait(const char* words);

/// The process needs this moment to end in order when the time is over.
void AllowToEnd(std::chrono::milliseconds moment);

} // namespace qorctl

#endif
