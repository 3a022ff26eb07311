// qorctl, the command line client of the service.
#include <exception>

#include <qor/QORDebug.h>

#include "common/ExitStatus.h"
#include "qorctl/Commands.h"
#include "qorctl/Message.h"

namespace
{

int RunCommand(const qorctl::TSOptions& options)
{
    switch (options.m_command)
    {
    case qorctl::ECommand::SET_POLICY:
        return qorctl::SetPolicy(options);
    case qorctl::ECommand::LISTEN:
        return qorctl::Listen(options);
    case qorctl::ECommand::INFO:
        return qorctl::Info(options);
    case qorctl::ECommand::STATUS:
        break;
    }
    return qorctl::Status(options);
}

} // namespace

int main(int count, char** pArguments)
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
        return RunCommand(*options);
    }
    catch (const std::exception& exception)
    {
        qorctl::SayError(exception.what());
        return tools::EXIT_NOT_DELIVERED;
    }
}
