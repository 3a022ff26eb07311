// What a process takes of the machine.
#include "ProcessStatus.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>

#include <boost/filesystem.hpp>

namespace qortest
{

std::size_t ResidentKilobytes(pid_t process)
{
    std::ifstream file("/proc/" + std::to_string(process) + "/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    file >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

std::size_t OpenFiles(pid_t process)
{
    const boost::filesystem::directory_iterator begin("/proc/" + std::to_string(process) + "/fd");
    return static_cast<std::size_t>(std::distance(begin, boost::filesystem::directory_iterator()));
}

bool IsSanitized()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

} // namespace qortest
