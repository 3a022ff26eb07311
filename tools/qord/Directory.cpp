// A directory that stays open, and the steps that are taken in it.
#include "qord/Directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <utility>

#include "qord/FileError.h"

#ifndef RENAME_EXCHANGE // a kernel's call that not every C library has
constexpr unsigned int RENAME_EXCHANGE = 1 << 1;

static int renameat2(int from, const char* one, int to, const char* other, unsigned int flags)
{
    return static_cast<int>(syscall(SYS_renameat2, from, one, to, other, flags));
}
#endif

namespace qord
{

TCDescriptor::~TCDescriptor()
{
    if (m_descriptor >= 0)
    {
        close(m_descriptor);
    }
}

bool TCDescriptor::Close()
{
    return close(std::exchange(m_descriptor, -1)) == 0 || errno == EINTR;
}

TCDirectory::TCDirectory(const std::string& path)
    : m_descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    if (m_descriptor.Get() < 0)
    {
        Fail("opening the directory " + path);
    }
}

bool TCDirectory::Look(const std::string& name, struct stat& status) const
{
    if (fstatat(Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
    {
        return true;
    }
    if (errno != ENOENT)
    {
        Fail("looking at " + name);
    }
    return false;
}

bool TCDirectory::Has(const std::string& name) const
{
    struct stat status;
    return Look(name, status);
}

void TCDirectory::Link(const std::string& from, const std::string& to) const
{
    if (linkat(Get(), from.c_str(), Get(), to.c_str(), 0) != 0)
    {
        Fail("linking " + from + " as " + to);
    }
}

void TCDirectory::Rename(const std::string& from, const std::string& to) const
{
    if (renameat(Get(), from.c_str(), Get(), to.c_str()) != 0)
    {
        Fail("renaming " + from + " to " + to);
    }
}

bool TCDirectory::Exchange(const std::string& one, const std::string& other) const
{
    if (renameat2(Get(), one.c_str(), Get(), other.c_str(), RENAME_EXCHANGE) == 0)
    {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP && errno != EPERM)
    {
        Fail("exchanging " + one + " with " + other);
    }
    return false;
}

void TCDirectory::Remove(const std::string& name) const
{
    if (unlinkat(Get(), name.c_str(), 0) != 0 && errno != ENOENT)
    {
        Fail("removing " + name);
    }
}

void TCDirectory::Sync() const
{
    // A file system that cannot sync directories says EINVAL; there is nothing more to be had.
    if (fsync(Get()) != 0 && errno != EINVAL)
    {
        Fail("syncing the directory");
    }
}

std::vector<std::string> TCDirectory::List() const
{
    const int descriptor = openat(Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(
        descriptor < 0 ? nullptr : fdopendir(descriptor), closedir);
    if (!stream)
    {
        Fail("listing the directory");
    }
    std::vector<std::string> names;
    errno = 0; // the end and a failure are told apart by it alone
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this function's own
    while (const dirent* pEntry = readdir(stream.get()))
    {
        names.emplace_back(pEntry->d_name);
    }
    if (errno != 0)
    {
        Fail("listing the directory");
    }
    return names;
}

bool TCDirectory::Read(const std::string& name, std::string& text, std::size_t maxSize,
                       std::string& error) const
{
    const TCDescriptor file(
        openat(Get(), name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    char buffer[65536];
    ssize_t count = file.Get() < 0 ? -1 : 1;
    text.clear();
    while (count > 0 && text.size() <= maxSize)
    {
        count = read(file.Get(), buffer, sizeof buffer);
        text.append(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    if (count < 0)
    {
        error = errno == ENOENT ? "" : std::generic_category().message(errno);
        return false;
    }
    if (text.size() > maxSize)
    {
        error = "it is larger than " + std::to_string(maxSize) + " bytes";
        return false;
    }
    return true;
}

std::string TCDirectory::PathOf(const std::string& name) const
{
    return "/proc/self/fd/" + std::to_string(Get()) + "/" + name;
}

std::uint64_t TCDirectory::FreeSpace() const
{
    struct statvfs status;
    if (fstatvfs(Get(), &status) != 0)
    {
        Fail("asking for the free space");
    }
    return std::uint64_t{status.f_bavail} * status.f_frsize;
}

} // namespace qord
