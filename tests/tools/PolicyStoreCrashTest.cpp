// The policy store on disks that refuse, in processes that are killed, and with power that is lost.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "PolicyStoreCrash.h"

using namespace qortest;

INSTANTIATE_TEST_SUITE_P(Keep, PolicyStoreCrash,
                         testing::Values(Kind{0, 0}, Kind{2, 0}, Kind{0, EINVAL}, Kind{2, EINVAL}));

TEST_P(PolicyStoreCrash, EachStepMayFail)
{
    int steps = 0;
    std::map<int, int> refused;
    StoreAndWatch(steps);
    for (const int error : {EIO, ENOSPC, EINTR})
    {
        for (int step = 1; step <= steps; ++step)
        {
            const std::string what = "step " + std::to_string(step) + ", " + strerror(error);
            Prepare();
            Watch watch;
            watch.fails = step;
            watch.error = error;
            const int result = Store(NEW, &watch);
            const Disk disk = Read();
            EXPECT_NE(result, qor::POLICY_STATE_UNKNOWN) << what;
            EXPECT_EQ(Fault(disk, result, IsRecorded()), "") << what;
            EXPECT_LE(Kept(disk), Copies()) << what;
            // Of the kept ones, a full disk may take the oldest.
            EXPECT_TRUE(result == qor::POLICY_STORED || error == ENOSPC || HasAll(disk, m_before))
                << what;
            EXPECT_EQ(FaultAfterPowerLoss(watch.changes, result, IsRecorded()), "") << what;
            refused[error] += result != qor::POLICY_STORED ? 1 : 0;
            ExpectThatTheNextIsStored(what);
        }
    }
    std::cout << steps << " steps, " << refused[EIO] << " of them refused on an error\n";
    EXPECT_GT(refused[EIO], steps / 3); // the others are housekeeping and the record
    // What is kept makes room for what comes.
    EXPECT_EQ(refused[ENOSPC]<refused[EIO], Copies()> 0);
}

TEST_P(PolicyStoreCrash, WhatCannotBePutBackIsSaidAndNothingIsRemoved)
{
    int steps = 0, unknown = 0;
    StoreAndWatch(steps);
    for (const int error : {EIO, EROFS, ENOSPC})
    {
        for (int point = 2; point <= 2 * steps + 1; ++point)
        {
            Prepare();
            const int step = point / 2;
            Watch watch;
            watch.fails = step;
            watch.error = error;
            watch.isForGood = point % 2 == 0;
            watch.failing = 2; // what went wrong, and what would have put it right
            const int result = Store(NEW, &watch);
            Disk disk = Read();
            EXPECT_EQ(Fault(disk, result, IsRecorded()), "") << step;
            EXPECT_TRUE(result != qor::POLICY_NOT_STORED || HasAll(disk, m_before)) << step;
            if (result == qor::POLICY_STATE_UNKNOWN)
            {
                ++unknown;
                const auto isOld = [](const auto& file)
                { return file.first.front() == '.' && file.second.second == OLD; };
                EXPECT_TRUE(std::any_of(disk.begin(), disk.end(), isOld)) << step;
                EXPECT_EQ(FaultAfterPowerLoss(watch.changes, -1), "") << step;
            }
            ExpectThatTheNextIsStored(std::to_string(step));
        }
    }
    EXPECT_EQ(unknown, 6); // the last sync, on each of the disks, and what comes after it
}

TEST_P(PolicyStoreCrash, EachStepMayBeTheLast)
{
    int steps = 0;
    StoreAndWatch(steps);
    for (int point = 1; point <= 2 * steps; ++point)
    {
        Prepare();
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
    std::cout << 2 * steps << " points\n";
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
    std::cout << changes.size() << " changes, " << disks.size() << " disks\n";

    // The new file, the record, the directory; and where the old file needs a link, that before.
    const bool isLinked = GetParam().exchangeError != 0 && Copies() > 0;
    EXPECT_EQ(Syncs(changes), isLinked ? 4U : 3U);
}
