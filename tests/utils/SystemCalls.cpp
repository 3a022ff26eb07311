#include "SystemCalls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qortest
{

bool SystemCalls::debugImage = false;
std::atomic<int> SystemCalls::statusQueries(0);
int SystemCalls::failingRead = 0;
int SystemCalls::chmodError = 0;
int SystemCalls::chownError = 0;
int SystemCalls::chownCalls = 0;
bool SystemCalls::mkdirComesSecond = false;
std::string SystemCalls::smallFileSystem;

void SystemCalls::Reset()
{
    debugImage = false;
    statusQueries = 0;
    failingRead = 0;
    chmodError = 0;
    chownError = 0;
    chownCalls = 0;
    mkdirComesSecond = false;
    smallFileSystem.clear();
}

} // namespace qortest

using qortest::SystemCalls;

namespace
{

template <class TFunction>
TFunction* Real(TFunction*, const char* name)
{
    return reinterpret_cast<TFunction*>(dlsym(RTLD_NEXT, name));
}

template <class TEntry>
TEntry* ReadEntry(DIR* pDirectory, TEntry* (*real)(DIR*))
{
    if (SystemCalls::failingRead > 0 && --SystemCalls::failingRead == 0)
    {
        errno = EIO;
        return nullptr;
    }
    return real(pDirectory);
}

int Refuse(int error)
{
    errno = error;
    return -1;
}

} // namespace

#define QORTEST_DOUBLE extern "C" __attribute__((visibility("default")))

QORTEST_DOUBLE int stat(const char* path, struct stat* pStatus) noexcept
{
    ++SystemCalls::statusQueries;
    if (strcmp(path, "/etc/debug") == 0)
    {
        return SystemCalls::debugImage ? 0 : Refuse(ENOENT);
    }
    static const auto real = Real(&stat, "stat");
    return real(path, pStatus);
}

QORTEST_DOUBLE int stat64(const char* path, struct stat64* pStatus) noexcept
{
    ++SystemCalls::statusQueries;
    static const auto real = Real(&stat64, "stat64");
    return real(path, pStatus);
}

QORTEST_DOUBLE int fstatat(int directory, const char* path, struct stat* pStatus,
                           int flags) noexcept
{
    ++SystemCalls::statusQueries;
    static const auto real = Real(&fstatat, "fstatat");
    return real(directory, path, pStatus, flags);
}

QORTEST_DOUBLE int statx(int directory, const char* path, int flags, unsigned int mask,
                         struct statx* pStatus) noexcept
{
    ++SystemCalls::statusQueries;
    static const auto real = Real(&statx, "statx");
    return real(directory, path, flags, mask, pStatus);
}

QORTEST_DOUBLE dirent* readdir(DIR* pDirectory)
{
    static const auto real = Real(&readdir, "readdir");
    return ReadEntry(pDirectory, real);
}

QORTEST_DOUBLE dirent64* readdir64(DIR* pDirectory)
{
    static const auto real = Real(&readdir64, "readdir64");
    return ReadEntry(pDirectory, real);
}

QORTEST_DOUBLE int chmod(const char* path, mode_t mode) noexcept
{
    static const auto real = Real(&chmod, "chmod");
    return SystemCalls::chmodError != 0 ? Refuse(SystemCalls::chmodError) : real(path, mode);
}

QORTEST_DOUBLE int chown(const char* path, uid_t user, gid_t group) noexcept
{
    ++SystemCalls::chownCalls;
    static const auto real = Real(&chown, "chown");
    return SystemCalls::chownError != 0 ? Refuse(SystemCalls::chownError) : real(path, user, group);
}

QORTEST_DOUBLE int mkdir(const char* path, mode_t mode) noexcept
{
    static const auto real = Real(&mkdir, "mkdir");
    const int result = real(path, mode);
    return SystemCalls::mkdirComesSecond ? Refuse(EEXIST) : result;
}

namespace
{

template <class TSpace>
int Space(const char* path, TSpace* pSpace, int (*real)(const char*, TSpace*))
{
    const int result = real(path, pSpace);
    if (result == 0 && !SystemCalls::smallFileSystem.empty() &&
        SystemCalls::smallFileSystem == path)
    {
        pSpace->f_frsize = pSpace->f_bsize = 512 * 1024;
        pSpace->f_bavail = 7;
        pSpace->f_bfree = 10;
        pSpace->f_blocks = 18;
    }
    return result;
}

} // namespace

QORTEST_DOUBLE int statvfs(const char* path, struct statvfs* pSpace) noexcept
{
    static const auto real = Real(&statvfs, "statvfs");
    return Space<struct statvfs>(path, pSpace, real);
}

QORTEST_DOUBLE int statvfs64(const char* path, struct statvfs64* pSpace) noexcept
{
    static const auto real = Real(&statvfs64, "statvfs64");
    return Space<struct statvfs64>(path, pSpace, real);
}
