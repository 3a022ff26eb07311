// qorctl, the command line client of the service.
#include <exception>

#include <qor/QORDebug.h>

#include "common/ExitStatus.h"
#include "common/Output.h"
#include "qorctl/Message.h"
#include "qorctl/Options.h"
#include "qorctl/TimeLimit.h"

namespace
{

int Run(int count, char** pArguments)
{
    try
    {
        int exitStatus = tools::EXIT_OK;
        const auto options = qorctl::ParseOptions(count, pArguments, exitStatus);
        if (!options)
        {
            return exitStatus;
        }
        qor::TCDebug::m_instance.EnableStdoutLog(options->m_verbose);
        qorctl::StartTimeLimit(options->m_timeoutSeconds);
        return options->m_command(*options);
    }
    catch (const tools::TCOutputError& exception)
    {
        qorctl::SayError(exception.what());
        return tools::EXIT_NO_OUTPUT;
    }
    catch (const std::exception& exception)
    {
        qorctl::SayError(exception.what());
        return tools::EXIT_NOT_DELIVERED;
    }
}

} // namespace

int main(int count, char** pArguments)
{
    tools::GuardStandardStreams();
    return Run(count, pArguments);
}
