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

// glibc's allocator would raise the size from which on a block goes back to the system, to that of
// the largest one that it has seen, and one message of 32 MiB would be kept for good.
static void ReturnLargeBlocks()
{
#ifdef M_MMAP_THRESHOLD
    constexpr int returnedBlock = 4 << 20;
    mallopt(M_MMAP_THRESHOLD, returnedBlock); // NOLINT(concurrency-mt-unsafe): no thread yet
#endif
}

int main(int count, char** pArguments)
{
    ReturnLargeBlocks();
    tools::GuardStandardStreams();
    try
    {
        int exitStatus = tools::EXIT_OK;
        auto options = qord::ParseOptions(count, pArguments, exitStatus);
        if (!options)
        {
            return exitStatus;
        }
        if (options->m_syslog)
        {
            qord::ReportToSyslog();
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
