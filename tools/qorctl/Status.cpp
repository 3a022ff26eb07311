// qorctl status: says whether the service is on the bus.
#include "common/ExitStatus.h"
#include "common/SystemBus.h"
#include "qorctl/Commands.h"
#include "qorctl/Message.h"

namespace qorctl
{

int Status(const TSOptions& options)
{
    std::string error;
    const auto connection = tools::ConnectToSystemBus(error);
    if (!connection)
    {
        SayError("there is no system bus: " + error);
        return tools::EXIT_NOT_DELIVERED;
    }
    const auto status = tools::QueryService(connection.get(), options.m_testNames);
    if (!status.m_error.empty())
    {
        SayError("the system bus does not answer: " + status.m_error);
        return tools::EXIT_NOT_DELIVERED;
    }
    const std::string name = tools::ServiceName(options.m_testNames);
    if (status.m_owner.empty())
    {
        Say(options.m_quiet, name + " is not on the bus.");
        return tools::EXIT_NOT_DELIVERED;
    }
    Say(options.m_quiet, name + " is on the bus: unique name " + status.m_owner + ", process id " +
                             std::to_string(status.m_processId) + ".");
    return tools::EXIT_OK;
}

} // namespace qorctl
