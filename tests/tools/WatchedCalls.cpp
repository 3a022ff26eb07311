// Calls of the system that change files, watched: each may fail, or be the last of the process.
#include "WatchedCalls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

namespace qortest
{
namespace
{

Watch* g_pWatch = nullptr;
std::map<ino_t, ino_t> g_created;

ino_t Own(ino_t number)
{
    const auto created = g_created.find(number);
    return created == g_created.end() ? number : created->second;
}

struct stat StatusOf(int descriptor)
{
    struct stat status = {};
    fstat(descriptor, &status);
    return status;
}

ino_t FileOf(int descriptor)
{
    const struct stat status = StatusOf(descriptor);
    return S_ISDIR(status.st_mode) ? 0 : Own(status.st_ino);
}

int Refuse(int error)
{
    errno = error;
    return -1;
}

// One call, and the change that it makes where it succeeds.
template <class... TArguments>
int Step(Change change, long number, TArguments... arguments)
{
    Watch* const pWatch = g_pWatch;
    if (pWatch == nullptr)
    {
        return static_cast<int>(syscall(number, arguments...));
    }
    if (pWatch->refused[number] != 0)
    {
        return Refuse(pWatch->refused[number]);
    }
    const int step = ++pWatch->steps;
    if (step == pWatch->killedBefore)
    {
        _exit(EXIT_FAILURE);
    }
    const int after = step - pWatch->fails;
    if (pWatch->fails > 0 && after >= 0 && (pWatch->isForGood || after < pWatch->failing))
    {
        return Refuse(pWatch->error);
    }
    const auto result = static_cast<int>(syscall(number, arguments...));
    if (result >= 0 && change.kind != Change::NONE)
    {
        pWatch->changes.push_back(std::move(change));
    }
    if (step == pWatch->killedAfter)
    {
        _exit(EXIT_FAILURE);
    }
    return result;
}

} // namespace

void SetWatch(Watch* pWatch)
{
    if (g_pWatch == nullptr)
    {
        g_created.clear();
    }
    g_pWatch = pWatch;
}

ino_t FileOf(int directory, const char* name)
{
    struct stat status = {};
    syscall(SYS_newfstatat, directory, name, &status, AT_SYMLINK_NOFOLLOW);
    return Own(status.st_ino);
}

} // namespace qortest

using namespace qortest;

extern "C"
{
    int open(const char* path, int flags, ...)
    {
        return Step({}, SYS_openat, AT_FDCWD, path, flags, 0600);
    }
    int openat(int directory, const char* name, int flags, ...)
    {
        const bool isNew =
            g_pWatch != nullptr && (flags & O_CREAT) != 0 && FileOf(directory, name) == 0;
        if (isNew && g_pWatch->creationError != 0)
        {
            return Refuse(g_pWatch->creationError);
        }
        const int result = Step({}, SYS_openat, directory, name, flags, 0600);
        if (isNew && result >= 0)
        {
            static ino_t last = ino_t(1) << 60;
            g_created[StatusOf(result).st_ino] = ++last;
            g_pWatch->changes.push_back({Change::NAMES, 0, {{name, last}}, ""});
        }
        return result;
    }
    ssize_t readlink(const char* path, char* buffer, size_t size) noexcept
    {
        return Step({}, SYS_readlinkat, AT_FDCWD, path, buffer, size);
    }
    int fstatat(int directory, const char* name, struct stat* pStatus, int flags) noexcept
    {
        return Step({}, SYS_newfstatat, directory, name, pStatus, flags);
    }
    int fchown(int file, uid_t user, gid_t group) noexcept
    {
        return Step({}, SYS_fchown, file, user, group);
    }
    ssize_t lgetxattr(const char* path, const char* name, void* pBytes, size_t size) noexcept
    {
        return Step({}, SYS_lgetxattr, path, name, pBytes, size);
    }
    int fsetxattr(int file, const char* name, const void* pBytes, size_t size, int flags) noexcept
    {
        return Step({}, SYS_fsetxattr, file, name, pBytes, size, flags);
    }
    int fremovexattr(int file, const char* name) noexcept
    {
        return Step({}, SYS_fremovexattr, file, name);
    }
    int fchmod(int file, mode_t mode) noexcept
    {
        return Step({}, SYS_fchmod, file, mode);
    }
    ssize_t write(int file, const void* pBytes, size_t size)
    {
        if (g_pWatch != nullptr && g_pWatch->fullUntilRemoved > 0)
        {
            return Refuse(ENOSPC);
        }
        const std::string data(static_cast<const char*>(pBytes), size);
        return Step({Change::DATA, FileOf(file), {}, data}, SYS_write, file, pBytes, size);
    }
    int fsync(int file)
    {
        return Step({Change::SYNC, FileOf(file), {}, ""}, SYS_getpid) < 0 ? -1 : 0; // no real one
    }
    int close(int file)
    {
        const int result = Step({}, SYS_getpid);
        const int savedErrno = errno;
        syscall(SYS_close, file); // also when it says that it failed
        errno = savedErrno;
        return result < 0 ? -1 : 0;
    }
    int linkat(int from, const char* name, int to, const char* newName, int flags) noexcept
    {
        return Step({Change::NAMES, 0, {{newName, FileOf(from, name)}}, ""}, SYS_linkat, from, name,
                    to, newName, flags);
    }
    int renameat(int from, const char* name, int to, const char* newName) noexcept
    {
        return Step({Change::NAMES, 0, {{name, 0}, {newName, FileOf(from, name)}}, ""},
                    SYS_renameat, from, name, to, newName);
    }
    int renameat2(int from, const char* name, int to, const char* newName,
                  unsigned int flags) noexcept
    {
        const ino_t old = FileOf(to, newName);
        return Step({Change::NAMES, 0, {{name, old}, {newName, FileOf(from, name)}}, ""},
                    SYS_renameat2, from, name, to, newName, flags);
    }
    int unlinkat(int directory, const char* name, int flags) noexcept
    {
        if (g_pWatch != nullptr && g_pWatch->fixedName == name)
        {
            return Refuse(EPERM);
        }
        const int result =
            Step({Change::NAMES, 0, {{name, 0}}, ""}, SYS_unlinkat, directory, name, flags);
        if (result == 0 && g_pWatch != nullptr && g_pWatch->fullUntilRemoved > 0)
        {
            --g_pWatch->fullUntilRemoved;
        }
        return result;
    }
    int fstatvfs(int, struct statvfs* pStatus) noexcept
    {
        pStatus->f_bavail = g_pWatch == nullptr ? ~0UL : g_pWatch->freeBytes;
        pStatus->f_frsize = 1;
        return Step({}, SYS_getpid) < 0 ? -1 : 0;
    }
}
