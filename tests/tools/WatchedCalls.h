// Calls of the system that change files, watched: each may fail, or be the last of the process.
#ifndef QORTEST_WATCHEDCALLS_H
#define QORTEST_WATCHEDCALLS_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace qortest
{

/// A change that the disk may or may not have seen, or a sync that orders what came before it.
struct Change
{
    enum EKind
    {
        NONE,
        NAMES,
        DATA,
        SYNC
    };
    EKind kind = NONE;
    ino_t file = 0;                     // of DATA and SYNC; 0: the directory
    std::map<std::string, ino_t> names; // to files; 0: gone
    std::string data;
};

struct Watch
{
    int fails = 0; // the number of the step that does, from 1
    int error = 0;
    int failing = 1;        // so many from it on
    bool isForGood = false; // all from it on
    int killedBefore = 0, killedAfter = 0;
    std::map<long, int> refused;    // the errors of calls that never succeed, by number
    int creationError = 0;          // of files that are not there
    std::string fixedName;          // cannot be removed
    unsigned long freeBytes = ~0UL; // of the disk
    int fullUntilRemoved = 0;       // nothing can be written until so many names are gone
    int steps = 0;
    std::vector<Change> changes;
};

/// From here on the calls of this program count as steps of that watch, until it is null again.
void SetWatch(Watch* pWatch);

/// The number of a file. The system gives that of a file that is gone to a new one; here each that
/// is created under a watch has its own until the next one.
ino_t FileOf(int directory, const char* name);

} // namespace qortest

#endif
