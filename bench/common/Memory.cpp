// Resident memory of this process.
#include "Memory.h"

#include <fstream>
#include <string>

#include "Session.h"

namespace qorbench
{

namespace
{

std::size_t StatusValue(const std::string& name)
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
    {
        if (word == name + ":")
        {
            std::size_t kibibytes = 0;
            status >> kibibytes;
            return kibibytes * 1024;
        }
    }
    Fail("no " + name + " in /proc/self/status");
}

} // namespace

std::size_t ResetPeakMemory()
{
    std::ofstream("/proc/self/clear_refs") << "5";
    return StatusValue("VmRSS");
}

std::size_t PeakMemory()
{
    return StatusValue("VmHWM");
}

} // namespace qorbench
