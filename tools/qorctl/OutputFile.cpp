// The file that qorctl writes a policy to.
#include "qorctl/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace qorctl
{
namespace
{

constexpr mode_t ANYBODY = 0666; // but for the umask
constexpr mode_t PERMISSIONS = 0777;

bool WriteAll(int file, const std::string& text)
{
    for (std::size_t written = 0; written < text.size();)
    {
        const ssize_t count = write(file, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR)
        {
            return false;
        }
        written += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    return true;
}

// Closes the file, and removes it if it is not whole.
bool Finish(int file, const std::string& name, bool isWhole)
{
    const int reason = errno;
    const bool isClosed = close(file) == 0;
    if (!isWhole || !isClosed)
    {
        const int latest = isWhole ? errno : reason;
        unlink(name.c_str());
        errno = latest;
    }
    return isWhole && isClosed;
}

bool WriteThrough(const std::string& file, const std::string& text)
{
    const int output = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, ANYBODY);
    if (output < 0)
    {
        return false;
    }
    const bool isWritten = WriteAll(output, text);
    const int reason = errno;
    const bool isClosed = close(output) == 0;
    errno = isWritten ? errno : reason;
    return isWritten && isClosed;
}

bool Replace(const std::string& file, const struct stat& status, const std::string& text)
{
    std::string beside = file + ".XXXXXX";
    const int output = mkostemp(beside.data(), O_CLOEXEC);
    if (output < 0)
    {
        return WriteThrough(file, text);
    }
    if (fchown(output, status.st_uid, status.st_gid) != 0 ||
        fchmod(output, status.st_mode & PERMISSIONS) != 0)
    {
        Finish(output, beside, false);
        return WriteThrough(file, text);
    }
    if (!Finish(output, beside, WriteAll(output, text) && fsync(output) == 0))
    {
        return false;
    }
    if (std::rename(beside.c_str(), file.c_str()) == 0)
    {
        return true;
    }
    unlink(beside.c_str());
    return WriteThrough(file, text);
}

} // namespace

bool WriteOutputFile(const std::string& file, const std::string& text)
{
    struct stat status;
    char real[PATH_MAX]; // a link stays one
    if (stat(file.c_str(), &status) == 0)
    {
        return S_ISREG(status.st_mode) && realpath(file.c_str(), real) != nullptr
                   ? Replace(real, status, text)
                   : WriteThrough(file, text);
    }
    const int output = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, ANYBODY);
    return output < 0 ? WriteThrough(file, text) : Finish(output, file, WriteAll(output, text));
}

} // namespace qorctl
