// The names by which the tools speak of the service's events.
#include "common/Events.h"

#include <qor/ICallbacks.h>

namespace tools
{

const char* EventName(int type)
{
    switch (type)
    {
    case qor::ICallbacks::POLICY_UPDATE:
        return "policy-update";
    case qor::ICallbacks::REQUEST_PROCESS_INFO:
        return "process-info";
    default:
        return "unknown";
    }
}

} // namespace tools
