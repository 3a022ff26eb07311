// The policy store on disks that refuse, in processes that are killed, and with power that is lost.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "PolicyStoreCrash.h"

using namespace qortest;

INSTANTIATE_TEST_SUITE_P(Keep, PolicyStoreCrash,
                         testing::Values(Kind{0, 0}, Kind{2, 0}, Kind{0, EINVAL}, Kind{2, EINVAL}));

TEST_P(PolicyStoreCrash, EachStepMayFailAndWhatWouldPutItRightToo)
{
    int steps = 0, unknown = 0;
    std::map<int, int> refused;
    StoreAndWatch(steps);
    const std::vector<std::pair<int, int>> failures = {
        {EIO, 1},    {ENOSPC, 1}, {EINTR, 1}, {EIO, 2},   {EROFS, 2},
        {ENOSPC, 2}, {EIO, 0},    {EROFS, 0}, {ENOSPC, 0}}; // so many times, or for good
    for (const auto& [error, times] : failures)
    {
        for (int step = 1; step <= steps; ++step)
        {
            SCOPED_TRACE(std::to_string(step) + ", " + strerror(error) + std::to_string(times));
            SetUp();
            Watch watch;
            watch.fails = step;
            watch.error = error;
            watch.failing = times;
            watch.isForGood = times == 0;
            const int result = Store(NEW, &watch);
            const bool isUnknown = result == qor::POLICY_STATE_UNKNOWN;
            const Disk disk = Read();
            EXPECT_EQ(Fault(disk, result, IsRecorded()), "");
            // Of the kept ones, a full disk may take the oldest.
            EXPECT_TRUE(result != qor::POLICY_NOT_STORED || (error == ENOSPC && times == 1) ||
                        HasAll(disk, m_before));
            if (times == 1 || isUnknown)
            {
                EXPECT_EQ(FaultAfterPowerLoss(watch.changes, isUnknown ? -1 : result,
                                              isUnknown || IsRecorded()),
                          "");
            }
            const auto isOld = [](const auto& file)
            { return file.first.front() == '.' && file.second.second == OLD; };
            EXPECT_TRUE(!isUnknown || std::any_of(disk.begin(), disk.end(), isOld));
            EXPECT_TRUE(times != 1 || (!isUnknown && Kept(disk) <= Copies()));
            unknown += isUnknown ? 1 : 0;
            refused[error] += times == 1 && result != qor::POLICY_STORED ? 1 : 0;
            ExpectThatTheNextIsStored("after that");
        }
    }
    EXPECT_EQ(unknown, 6); // the last sync, on each of the disks, and what comes after it
    EXPECT_GT(refused[EIO], steps / 3); // the others are housekeeping and the record
    // What is kept makes room for what comes.
    EXPECT_EQ(refused[ENOSPC]<refused[EIO], Copies()> 0);
}

TEST_P(PolicyStoreCrash, EachStepMayBeTheLast)
{
    int steps = 0;
    StoreAndWatch(steps);
    for (int point = 1; point <= 2 * steps; ++point)
    {
        SetUp();
        Watch watch;
        (point % 2 == 0 ? watch.killedAfter : watch.killedBefore) = (point + 1) / 2;
        const pid_t process = fork();
        if (process == 0)
        {
            Store(NEW, &watch);
            _exit(EXIT_SUCCESS);
        }
        int status = 0;
        waitpid(process, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), EXIT_FAILURE) << "it was not killed";
        EXPECT_EQ(Fault(Read(), -1), "") << point;
        EXPECT_LE(Kept(Read()), Copies()) << point;
        ExpectThatTheNextIsStored(std::to_string(point));
    }
}

TEST_P(PolicyStoreCrash, PowerMayBeLostAtAnyMoment)
{
    int steps = 0;
    const std::vector<Change> changes = StoreAndWatch(steps);
    EXPECT_EQ(FaultAfterPowerLoss(changes, qor::POLICY_STORED), "");
    std::set<Disk> disks;
    for (std::size_t end = 0; end <= changes.size(); ++end)
    {
        disks.merge(DisksAfterPowerLoss(changes, end, false));
    }
    for (const Disk& disk : disks)
    {
        Write(disk);
        ExpectThatTheNextIsStored("a disk after a loss of power");
    }

    // The new file, the record, the directory; and where the old file needs a link, that before.
    const bool isLinked = GetParam().exchangeError != 0 && Copies() > 0;
    EXPECT_EQ(Syncs(changes), isLinked ? 4U : 3U);
}
