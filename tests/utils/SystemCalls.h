// Calls of the C library that the test program answers itself where a test asks for it; all others
// are passed on. The definitions are in this header: one source of a program includes it.
#ifndef QORTEST_SYSTEMCALLS_H
#define QORTEST_SYSTEMCALLS_H

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

namespace qortest
{

struct SystemCalls
{
    bool debugImage = false; // whether stat finds /etc/debug
    int failingRead = 0;     // the read of an entry that fails with EIO, counted from 1
    int chmodError = 0;      // what chmod and chown answer, where it is not 0
    int chownError = 0;
    int chownCalls = 0;
    bool mkdirComesSecond = false; // somebody else has made the directory just now
    std::string smallFileSystem;   // 3.5 MiB for unprivileged users, of 5 free and 9 in all
};
inline SystemCalls systemCalls;
inline std::atomic<int> statusQueries(0);

inline int Refuse(int error)
{
    errno = error;
    return -1;
}

} // namespace qortest

// Begins the definition of a function of the C library; Real_NAME() is the one that it stands
// before.
#define QORTEST_DOUBLE(result, name, parameters, ...)                                              \
    inline auto Real_##name()                                                                      \
    {                                                                                              \
        static const auto real = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name));  \
        return real;                                                                               \
    }                                                                                              \
    extern "C" __attribute__((visibility("default"))) result name parameters __VA_ARGS__

QORTEST_DOUBLE(int, stat, (const char* path, struct stat* pStatus), noexcept)
{
    ++qortest::statusQueries;
    if (strcmp(path, "/etc/debug") == 0)
    {
        return qortest::systemCalls.debugImage ? 0 : qortest::Refuse(ENOENT);
    }
    return Real_stat()(path, pStatus);
}

#define QORTEST_COUNTED(name, parameters, ...)                                                     \
    QORTEST_DOUBLE(int, name, parameters, noexcept)                                                \
    {                                                                                              \
        ++qortest::statusQueries;                                                                  \
        return Real_##name()(__VA_ARGS__);                                                         \
    }

QORTEST_COUNTED(stat64, (const char* path, struct stat64* pStatus), path, pStatus)
QORTEST_COUNTED(fstatat, (int base, const char* path, struct stat* pStatus, int flags), base, path,
                pStatus, flags)
QORTEST_COUNTED(statx,
                (int base, const char* path, int flags, unsigned int mask, struct statx* pStatus),
                base, path, flags, mask, pStatus)

QORTEST_DOUBLE(dirent*, readdir, (DIR * pDirectory), )
{
    if (qortest::systemCalls.failingRead > 0 && --qortest::systemCalls.failingRead == 0)
    {
        errno = EIO;
        return nullptr;
    }
    return Real_readdir()(pDirectory);
}

QORTEST_DOUBLE(int, chmod, (const char* path, mode_t mode), noexcept)
{
    const int error = qortest::systemCalls.chmodError;
    return error != 0 ? qortest::Refuse(error) : Real_chmod()(path, mode);
}

QORTEST_DOUBLE(int, chown, (const char* path, uid_t user, gid_t group), noexcept)
{
    ++qortest::systemCalls.chownCalls;
    const int error = qortest::systemCalls.chownError;
    return error != 0 ? qortest::Refuse(error) : Real_chown()(path, user, group);
}

QORTEST_DOUBLE(int, mkdir, (const char* path, mode_t mode), noexcept)
{
    const int result = Real_mkdir()(path, mode);
    return qortest::systemCalls.mkdirComesSecond ? qortest::Refuse(EEXIST) : result;
}

QORTEST_DOUBLE(int, statvfs64, (const char* path, struct statvfs64* pSpace), noexcept)
{
    const int result = Real_statvfs64()(path, pSpace);
    if (result == 0 && qortest::systemCalls.smallFileSystem == path)
    {
        pSpace->f_frsize = pSpace->f_bsize = 512 * 1024;
        pSpace->f_bavail = 7;
        pSpace->f_bfree = 10;
        pSpace->f_blocks = 18;
    }
    return result;
}

#endif
