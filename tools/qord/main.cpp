// qord, the reference service.
#include <exception>

#include <malloc.h>

#include <qor/QORDebug.h>
#include <qor/QORDirsManager.h>

#include "common/ExitStatus.h"
#include "common/Output.h"
#include "qord/Options.h"
#include "qord/Report.h"
#include "qord/Service.h"

// From this size on a block goes back to the system when it is freed. The allocator would raise the
// mark to the largest block that it has seen, and one message of 32 MiB would be kept for good.
constexpr int RETURNED_BLOCK = 4 << 20;

int main(int count, char** pArguments)
{
    mallopt(M_MMAP_THRESHOLD, RETURNED_BLOCK); // NOLINT(concurrency-mt-unsafe): no thread yet
    tools::GuardStandardStreams();
    try
    {
        int exitStatus = tools::EXIT_OK;
        auto options = qord::ParseOptions(count, pArguments, exitStatus);
        if (!options)
        {
            return exitStatus;
        }
        qor::TCDebug::m_instance.EnableStdoutLog(options->m_verbose);
        if (options->m_policyFile.empty())
        {
            qor::TCDirsManager::Initialize();
            options->m_policyFile = qor::TCDirsManager::GetPolicyXmlPath();
        }
        return qord::TCService(*options).Run();
    }
    catch (const std::exception& exception)
    {
        qord::ReportError("%s", exception.what());
        return tools::EXIT_REFUSED;
    }
}
