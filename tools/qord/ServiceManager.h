// What this process tells the service manager that runs it, as sd_notify(3) has it: systemd, or
// another one that has taken over its protocol.
#ifndef QORD_SERVICEMANAGER_H
#define QORD_SERVICEMANAGER_H

#include <string>

namespace qord
{

/// Whether there is one that wants to be told.
bool HasServiceManager();

/// @param lines  "NAME=value" each
void TellServiceManager(const std::string& lines);

/// How long it bears silence before it ends this process, in milliseconds; 0: for ever.
unsigned int ToleratedSilenceMs();

} // namespace qord

#endif
