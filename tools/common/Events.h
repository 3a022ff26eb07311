// The names by which the tools speak of the service's events.
#ifndef TOOLS_COMMON_EVENTS_H
#define TOOLS_COMMON_EVENTS_H

namespace tools
{

/// The event's name in output and environments, for a type of qor::ICallbacks::ECallbackType.
const char* EventName(int type);

} // namespace tools

#endif
