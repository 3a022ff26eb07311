// Says that this process, and no other, keeps a file.
#include "qord/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <fstream>
#include <sstream>

#include "qord/FileError.h"

namespace qord
{
namespace
{

// The system's list has lines like "1: FLOCK  ADVISORY  WRITE 4711 fe:01:262147 0 EOF".
std::string Holder(ino_t file)
{
    std::ifstream locks("/proc/locks");
    const std::string end = ":" + std::to_string(file);
    for (std::string line; std::getline(locks, line);)
    {
        std::istringstream words(line);
        std::string number, kind, advisory, access, process, place;
        words >> number >> kind >> advisory >> access >> process >> place;
        if (kind == "FLOCK" && place.size() > end.size() &&
            place.compare(place.size() - end.size(), end.size(), end) == 0)
        {
            std::string program;
            std::getline(std::ifstream("/proc/" + process + "/comm"), program);
            return "process " + process + (program.empty() ? "" : " (" + program + ")");
        }
    }
    return "another process";
}

} // namespace

TCFileLock::TCFileLock(const TCDirectory& directory, const std::string& name)
    // For reading, else the file system could not be remounted read-only; and not blocking: it
    // might be a pipe.
    : m_file(openat(directory.Get(), name.c_str(),
                    O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600))
{
    struct stat status;
    if (m_file.Get() < 0 || fstat(m_file.Get(), &status) != 0)
    {
        Fail("opening " + name);
    }
    if (!S_ISREG(status.st_mode))
    {
        throw TCFileError(name + " is not a regular file", EINVAL);
    }
    if (flock(m_file.Get(), LOCK_EX | LOCK_NB) == 0)
    {
        return;
    }
    if (errno != EWOULDBLOCK)
    {
        Fail("locking " + name);
    }
    throw TCFileError(Holder(status.st_ino) + " keeps this file", EBUSY);
}

bool TCFileLock::IsOf(const TCDirectory& directory, const std::string& name) const
{
    struct stat mine;
    struct stat present;
    return fstat(m_file.Get(), &mine) == 0 && directory.Look(name, present) &&
           mine.st_ino == present.st_ino && mine.st_dev == present.st_dev;
}

} // namespace qord
