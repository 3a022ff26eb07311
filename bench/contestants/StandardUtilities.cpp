// The same jobs with the C++ standard library: a mutex and a map, and the recursive iterator.
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Session.h"
#include "UtilityJobs.h"

namespace
{

namespace fs = std::filesystem;

std::mutex cacheMutex;
std::map<std::string, std::string> cache = {{"db/bench/value", "what the platform has said"}};

bool Cached(const std::string& key, std::string& value)
{
    const std::lock_guard<std::mutex> lock(cacheMutex);
    const auto found = cache.find(key);
    if (found == cache.end())
    {
        return false;
    }
    value = found->second;
    return true;
}

} // namespace

int main()
{
    using namespace qorbench;
    UtilityJobs jobs;
    jobs.m_lookUp = [key = std::string("db/bench/value")]
    {
        std::string value;
        if (!Cached(key, value))
        {
            Fail("the setting is missing");
        }
    };
    jobs.m_countXmlFiles = [](const std::string& tree)
    {
        std::vector<fs::path> files;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree))
        {
            if (entry.is_regular_file() && entry.path().extension() == ".xml")
            {
                files.push_back(entry.path().filename());
            }
        }
        return files.size();
    };
    jobs.m_treeSize = [](const std::string& tree)
    {
        std::size_t size = 0;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(tree))
        {
            if (entry.is_regular_file())
            {
                size += entry.file_size();
            }
        }
        return size;
    };
    return RunUtilityJobs(jobs);
}
