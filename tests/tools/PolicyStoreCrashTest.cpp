// The policy store on disks that refuse, in processes that are killed, and with power that is lost.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <set>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "WatchedCalls.h"
#include "qord/PolicyStore.h"

using namespace qortest;

// What stands in the directory: names, and the numbers and texts of their files.
using Disk = std::map<std::string, std::pair<ino_t, std::string>>;

static const std::string POLICY = "p.xml", KEPT = "p.xml.kept-", OLD = "three", NEW = "four";

class PolicyStoreCrash : public testing::TestWithParam<unsigned int>
{
protected:
    void SetUp() override
    {
        Prepare();
    }

    void Prepare()
    {
        m_pDirectory = std::make_unique<TemporaryDirectory>();
        for (const char* text : {"one", "two", OLD.c_str()})
        {
            ASSERT_EQ(Store(text), qor::POLICY_STORED);
        }
        m_before = Read();
    }

    int Store(const std::string& text, Watch* pWatch = nullptr)
    {
        const qord::TCPolicyStore store(m_pDirectory->Path(POLICY), {GetParam(), 1});
        std::string error;
        SetWatch(pWatch);
        const int result = store.Store(text, error);
        SetWatch(nullptr);
        return result;
    }

    std::vector<Change> StoreAndWatch(int& steps)
    {
        Watch watch;
        EXPECT_EQ(Store(NEW, &watch), qor::POLICY_STORED);
        steps = watch.steps;
        return watch.changes;
    }

    Disk Read() const
    {
        Disk disk;
        for (const auto& entry : boost::filesystem::directory_iterator(m_pDirectory->Path()))
        {
            const std::string path = entry.path().string();
            disk[entry.path().filename().string()] = {FileOf(AT_FDCWD, path.c_str()),
                                                      ReadFile(path)};
        }
        return disk;
    }

    void Write(const Disk& disk)
    {
        m_pDirectory = std::make_unique<TemporaryDirectory>();
        std::map<ino_t, std::string> written;
        for (const auto& [name, file] : disk)
        {
            const std::string path = m_pDirectory->Path(name);
            written.emplace(file.first, path).second
                ? WriteFile(path, file.second)
                : boost::filesystem::create_hard_link(written[file.first], path);
        }
    }

    static std::size_t Kept(const Disk& disk)
    {
        return static_cast<std::size_t>(std::count_if(
            disk.begin(), disk.end(),
            [](const auto& file) { return file.first.compare(0, KEPT.size(), KEPT) == 0; }));
    }

    // What is wrong with what a reader, or the next start, finds. The result is -1 after a crash.
    static std::string Fault(const Disk& disk, int result)
    {
        const auto policy = disk.find(POLICY);
        const bool isNew = policy != disk.end() && policy->second.second == NEW;
        const bool isOld = policy != disk.end() && policy->second.second == OLD;
        const bool hasOld = std::any_of(disk.begin(), disk.end(),
                                        [](const auto& file) { return file.second.second == OLD; });
        return !isNew && !isOld                             ? "no whole policy"
               : result == qor::POLICY_STORED && !isNew     ? "what was acknowledged is lost"
               : result == qor::POLICY_NOT_STORED && !isOld ? "what was refused is in force"
               : GetParam() > 0 && !hasOld                  ? "the old one is not kept"
                                                            : "";
    }

    // Whatever has happened, the next policy is stored as ever, and what is kept is what was there.
    void ExpectThatTheNextIsStored(const std::string& what)
    {
        const std::string last = Read()[POLICY].second;
        EXPECT_EQ(Store("five"), qor::POLICY_STORED) << what;
        Disk disk = Read();
        EXPECT_EQ(disk.size(), 1 + Kept(disk)) << what << ": something is left";
        EXPECT_LE(Kept(disk), GetParam()) << what;
        EXPECT_EQ(disk[POLICY].second, "five") << what;
        std::set<std::string> texts;
        std::for_each(disk.begin(), disk.end(),
                      [&](const auto& file) { texts.insert(file.second.second); });
        EXPECT_EQ(texts.size(), disk.size()) << what << ": something is kept twice";
        EXPECT_TRUE(GetParam() == 0 || disk.rbegin()->second.second == last) << what << " " << last;
    }

    std::set<Disk> DisksAfterPowerLoss(const std::vector<Change>& changes, std::size_t end) const;
    std::string FaultAfterPowerLoss(const std::vector<Change>& changes, int result) const;

    std::unique_ptr<TemporaryDirectory> m_pDirectory;
    Disk m_before;
};

INSTANTIATE_TEST_SUITE_P(Keep, PolicyStoreCrash, testing::Values(0U, 2U));

TEST_P(PolicyStoreCrash, EachStepMayFail)
{
    int steps = 0;
    std::map<int, int> refused;
    StoreAndWatch(steps);
    for (const int error : {EIO, ENOSPC, EDQUOT, EROFS, EINTR})
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
            EXPECT_EQ(Fault(disk, result), "") << what;
            EXPECT_LE(Kept(disk), GetParam()) << what;
            // Of the kept ones, a full disk may take the oldest.
            EXPECT_TRUE(result == qor::POLICY_STORED || error == ENOSPC || error == EDQUOT ||
                        std::includes(disk.begin(), disk.end(), m_before.begin(), m_before.end()))
                << what;
            EXPECT_EQ(FaultAfterPowerLoss(watch.changes, result), "") << what;
            refused[error] += result != qor::POLICY_STORED ? 1 : 0;
            ExpectThatTheNextIsStored(what);
        }
    }
    std::cout << steps << " steps, " << refused[EIO] << " of them refused on an error\n";
    EXPECT_GT(refused[EIO], steps / 2);
    // What is kept makes room for what comes.
    EXPECT_EQ(refused[ENOSPC]<refused[EIO], GetParam()> 0);
}

TEST_P(PolicyStoreCrash, WhatCannotBePutBackIsSaidAndNothingIsRemoved)
{
    int steps = 0, unknown = 0;
    StoreAndWatch(steps);
    for (int step = 1; step <= steps; ++step)
    {
        Prepare();
        Watch watch;
        watch.fails = step;
        watch.error = EIO;
        watch.isForGood = true;
        const int result = Store(NEW, &watch);
        EXPECT_EQ(Fault(Read(), result), "") << step;
        if (result == qor::POLICY_STATE_UNKNOWN)
        {
            ++unknown;
            EXPECT_EQ(Read()["." + POLICY + ".old"].second, OLD);
        }
        ExpectThatTheNextIsStored(std::to_string(step));
    }
    EXPECT_EQ(unknown, 1); // the last sync
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
        EXPECT_LE(Kept(Read()), GetParam()) << point;
        ExpectThatTheNextIsStored(std::to_string(point));
    }
    std::cout << 2 * steps << " points\n";
}

// Every disk that the first changes allow: those that a sync has ordered are there, and any of the
// others.
std::set<Disk> PolicyStoreCrash::DisksAfterPowerLoss(const std::vector<Change>& changes,
                                                     std::size_t end) const
{
    std::vector<bool> isOpen(end);
    std::size_t count = 0;
    for (std::size_t i = 0; i < end; ++i)
    {
        isOpen[i] =
            changes[i].kind != Change::SYNC &&
            std::none_of(&changes[i], &changes[0] + end,
                         [&](const Change& later)
                         { return later.kind == Change::SYNC && later.file == changes[i].file; });
        count += isOpen[i] ? 1U : 0U;
    }
    std::set<Disk> disks;
    for (std::size_t chosen = 0; chosen < std::size_t(1) << count; ++chosen)
    {
        Disk disk = m_before;
        std::map<ino_t, std::string> written;
        for (std::size_t i = 0, bit = 0; i < end; ++i)
        {
            if (isOpen[i] && (chosen >> bit++ & 1) == 0)
            {
                continue;
            }
            if (changes[i].kind == Change::DATA)
            {
                written[changes[i].file] += changes[i].data;
            }
            for (const auto& [name, file] : changes[i].names)
            {
                file == 0 ? void(disk.erase(name)) : void(disk[name] = {file, ""});
            }
        }
        for (auto& [name, file] : disk)
        {
            const auto isSame = [number = file.first](const auto& before)
            { return before.second.first == number; };
            const auto before = std::find_if(m_before.begin(), m_before.end(), isSame);
            file.second = before == m_before.end() ? written[file.first] : before->second.second;
        }
        disks.insert(disk);
    }
    return disks;
}

std::string PolicyStoreCrash::FaultAfterPowerLoss(const std::vector<Change>& changes,
                                                  int result) const
{
    for (std::size_t end = 0; end <= changes.size(); ++end)
    {
        for (const Disk& disk : DisksAfterPowerLoss(changes, end))
        {
            const std::string fault = Fault(disk, end == changes.size() ? result : -1);
            if (!fault.empty())
            {
                return fault + " after change " + std::to_string(end);
            }
        }
    }
    return "";
}

TEST_P(PolicyStoreCrash, PowerMayBeLostAtAnyMoment)
{
    int steps = 0;
    const std::vector<Change> changes = StoreAndWatch(steps);
    EXPECT_EQ(FaultAfterPowerLoss(changes, qor::POLICY_STORED), "");
    std::set<Disk> disks;
    for (std::size_t end = 0; end <= changes.size(); ++end)
    {
        disks.merge(DisksAfterPowerLoss(changes, end));
    }
    for (const Disk& disk : disks)
    {
        Write(disk);
        ExpectThatTheNextIsStored("a disk after a loss of power");
    }
    std::cout << changes.size() << " changes, " << disks.size() << " disks\n";

    // The model would see a sync that is missing, whichever, and a file that is placed too early.
    std::size_t syncs = 0, written = 0, placed = 0;
    for (std::size_t i = 0; i < changes.size(); ++i)
    {
        const bool isSync = changes[i].kind == Change::SYNC;
        written = isSync && changes[i].file != 0 ? i : written;
        placed = changes[i].names.count(POLICY) != 0 ? i : placed;
        if (isSync)
        {
            ++syncs;
            std::vector<Change> without = changes;
            without.erase(without.begin() + static_cast<std::ptrdiff_t>(i));
            EXPECT_NE(FaultAfterPowerLoss(without, qor::POLICY_STORED), "")
                << "without sync " << syncs;
        }
    }
    EXPECT_EQ(syncs, GetParam() > 0 ? 3U : 2U);
    std::vector<Change> early = changes;
    std::swap(early[written], early[placed]);
    EXPECT_NE(FaultAfterPowerLoss(early, qor::POLICY_STORED), "");
}
