// Calls of the C library that the test program answers itself where a test asks for it; all other
// calls are passed on.
#ifndef QORTEST_SYSTEMCALLS_H
#define QORTEST_SYSTEMCALLS_H

#include <atomic>
#include <string>

namespace qortest
{

struct SystemCalls
{
    /// Whether stat finds /etc/debug.
    static bool debugImage;

    /// Calls for the status of an entry so far, by path or relative to a directory.
    static std::atomic<int> statusQueries;

    /// The read of a directory's entry that fails with EIO, counted from 1; 0: none.
    static int failingRead;

    /// What chmod and chown answer; 0: passed on.
    static int chmodError;
    static int chownError;
    static int chownCalls;

    /// mkdir finds that somebody else has made the directory just now.
    static bool mkdirComesSecond;

    /// statvfs of this path reports 3.5 MiB for unprivileged users, of 5 free and 9 in all.
    static std::string smallFileSystem;

    static void Reset();
};

} // namespace qortest

#endif
