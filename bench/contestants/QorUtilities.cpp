// The library's utilities.
#include <vector>

#include <qor/QORCachingUtils.h>
#include <qor/QORDebug.h>
#include <qor/QORFileSystem.h>

#include "Session.h"
#include "UtilityJobs.h"

int main()
{
    using namespace qorbench;
    qor::TCDebug::m_instance.EnableStdoutLog(false);
    qor::TCDebug::m_instance.EnableFileLog(false);

    UtilityJobs jobs;
    jobs.m_lookUp = [key = std::string("db/bench/value")]
    {
        std::string value;
        if (!qor::TCVelkinCachingUtils::GetVconfCachedString(key, value))
        {
            Fail("the setting is missing");
        }
    };
    jobs.m_countXmlFiles = [](const std::string& tree)
    {
        std::vector<boost::filesystem::path> files;
        qor::TSFileSystem::GetFiles(files, tree, ".xml");
        return files.size();
    };
    jobs.m_treeSize = [](const std::string& tree) { return qor::TSFileSystem::GetDirSize(tree); };
    return RunUtilityJobs(jobs);
}
