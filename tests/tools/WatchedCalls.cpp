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

Change Nothing()
{
    return {};
}

// One call, and the change that it makes where it succeeds, as it is known before.
template <class TChange, class... TArguments>
long Step(const TChange& change, long number, TArguments... arguments)
{
    Watch* const pWatch = g_pWatch;
    if (pWatch == nullptr)
    {
        return syscall(number, arguments...);
    }
    const int step = ++pWatch->steps;
    if (step == pWatch->killedBefore)
    {
        _exit(EXIT_FAILURE);
    }
    const int after = step - pWatch->fails;
    if (pWatch->fails > 0 && after >= 0 && (pWatch->isForGood || after < pWatch->failing))
    {
        errno = pWatch->error;
        return -1;
    }
    g_pWatch = nullptr;
    Change made = change();
    const long result = syscall(number, arguments...);
    g_pWatch = pWatch;
    if (result >= 0 && made.kind != Change::NONE)
    {
        pWatch->changes.push_back(std::move(made));
    }
    if (step == pWatch->killedAfter)
    {
        _exit(EXIT_FAILURE);
    }
    return result;
}

// A call that may be refused whatever its number is.
template <class TChange, class... TArguments>
int StepUnless(int Watch::*pError, const TChange& change, long number, TArguments... arguments)
{
    if (g_pWatch != nullptr && g_pWatch->*pError != 0)
    {
        errno = g_pWatch->*pError;
        return -1;
    }
    return static_cast<int>(Step(change, number, arguments...));
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
        return static_cast<int>(Step(Nothing, SYS_openat, AT_FDCWD, path, flags, 0600));
    }
    int openat(int directory, const char* name, int flags, ...)
    {
        struct stat status = {};
        const bool isThere =
            syscall(SYS_newfstatat, directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
        const bool isNew = (flags & O_CREAT) != 0 && !isThere;
        const auto result =
            isNew ? StepUnless(&Watch::creationError, Nothing, SYS_openat, directory, name, flags,
                               0600)
                  : static_cast<int>(Step(Nothing, SYS_openat, directory, name, flags, 0600));
        if (result >= 0 && g_pWatch != nullptr && isNew)
        {
            static ino_t last = ino_t(1) << 60;
            g_created[StatusOf(result).st_ino] = ++last;
            g_pWatch->changes.push_back({Change::NAMES, 0, {{name, last}}, ""});
        }
        return result;
    }
    ssize_t readlink(const char* path, char* buffer, size_t size) noexcept
    {
        return Step(Nothing, SYS_readlinkat, AT_FDCWD, path, buffer, size);
    }
    int fstatat(int directory, const char* name, struct stat* pStatus, int flags) noexcept
    {
        return static_cast<int>(Step(Nothing, SYS_newfstatat, directory, name, pStatus, flags));
    }
    int fchown(int file, uid_t user, gid_t group) noexcept
    {
        return StepUnless(&Watch::ownerError, Nothing, SYS_fchown, file, user, group);
    }
    ssize_t lgetxattr(const char* path, const char* name, void* pBytes, size_t size) noexcept
    {
        return Step(Nothing, SYS_lgetxattr, path, name, pBytes, size);
    }
    int fsetxattr(int file, const char* name, const void* pBytes, size_t size, int flags) noexcept
    {
        return StepUnless(&Watch::listError, Nothing, SYS_fsetxattr, file, name, pBytes, size,
                          flags);
    }
    int fremovexattr(int file, const char* name) noexcept
    {
        return static_cast<int>(Step(Nothing, SYS_fremovexattr, file, name));
    }
    int fchmod(int file, mode_t mode) noexcept
    {
        return static_cast<int>(Step(Nothing, SYS_fchmod, file, mode));
    }
    ssize_t write(int file, const void* pBytes, size_t size)
    {
        const auto data = [&] {
            return Change{Change::DATA, FileOf(file), {}, {static_cast<const char*>(pBytes), size}};
        };
        if (g_pWatch != nullptr && g_pWatch->fullUntilRemoved > 0)
        {
            errno = ENOSPC;
            return -1;
        }
        return Step(data, SYS_write, file, pBytes, size);
    }
    int fsync(int file)
    {
        // No need to wait for a disk.
        const auto sync = [&] { return Change{Change::SYNC, FileOf(file), {}, ""}; };
        return Step(sync, SYS_getpid) < 0 ? -1 : 0;
    }
    int close(int file)
    {
        const long result = Step(Nothing, SYS_getpid);
        const int savedErrno = errno;
        syscall(SYS_close, file); // also when it says that it failed
        errno = savedErrno;
        return result < 0 ? -1 : 0;
    }
    int linkat(int from, const char* name, int to, const char* newName, int flags) noexcept
    {
        const auto names = [&] {
            return Change{Change::NAMES, 0, {{newName, FileOf(from, name)}}, ""};
        };
        return StepUnless(&Watch::linkError, names, SYS_linkat, from, name, to, newName, flags);
    }
    int renameat(int from, const char* name, int to, const char* newName) noexcept
    {
        const auto names = [&] {
            return Change{Change::NAMES, 0, {{name, 0}, {newName, FileOf(from, name)}}, ""};
        };
        return static_cast<int>(Step(names, SYS_renameat, from, name, to, newName));
    }
    int renameat2(int from, const char* name, int to, const char* newName,
                  unsigned int flags) noexcept
    {
        const auto names = [&]
        {
            return Change{
                Change::NAMES, 0, {{name, FileOf(to, newName)}, {newName, FileOf(from, name)}}, ""};
        };
        return StepUnless(&Watch::exchangeError, names, SYS_renameat2, from, name, to, newName,
                          flags);
    }
    int unlinkat(int directory, const char* name, int flags) noexcept
    {
        const auto names = [&] { return Change{Change::NAMES, 0, {{name, 0}}, ""}; };
        if (g_pWatch != nullptr && g_pWatch->fixedName == name)
        {
            errno = EPERM;
            return -1;
        }
        const auto result = static_cast<int>(Step(names, SYS_unlinkat, directory, name, flags));
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
        return Step(Nothing, SYS_getpid) < 0 ? -1 : 0;
    }
}
