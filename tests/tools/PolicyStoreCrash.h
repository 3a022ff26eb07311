// A policy store whose calls are watched, and what may be left of it.
#ifndef QORTEST_POLICYSTORECRASH_H
#define QORTEST_POLICYSTORECRASH_H

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "WatchedCalls.h"
#include "qord/PolicyStore.h"

namespace qortest
{

/// What stands in the directory: names, and the numbers and texts of their files.
using Disk = std::map<std::string, std::pair<ino_t, std::string>>;

const std::string POLICY = "p.xml", KEPT = "p.xml.kept-", OLD = "three", NEW = "four";
const std::string UNFINISHED = ".p.xml.new-", RECORD = "p.xml.history", LOCK = ".p.xml.lock";

struct Kind
{
    unsigned int copies;
    int exchangeError; // where names cannot be exchanged, they are linked
};

class PolicyStoreCrash : public testing::TestWithParam<Kind>
{
protected:
    /// Again for each try of a test: a directory with three policies of one after the other.
    void SetUp() override
    {
        m_pDirectory = std::make_unique<TemporaryDirectory>();
        for (const char* text : {"one", "two", OLD.c_str()})
        {
            ASSERT_EQ(Store(text), qor::POLICY_STORED);
        }
        ForgetFiles();
        m_before = Read();
    }

    /// The numbers of what has been created until now.
    static void ForgetFiles()
    {
        SetWatch(nullptr);
    }

    /// What the record knows: the policy that was in force, and the new one.
    static std::string Known(const std::string& before, const std::string& text)
    {
        return before + "," + text;
    }

    int Store(const std::string& text, Watch* pWatch = nullptr);

    static unsigned int Copies()
    {
        return GetParam().copies;
    }

    /// But for the record, which tells of what is not there then.
    static bool HasAll(Disk disk, const Disk& before)
    {
        disk[RECORD] = before.at(RECORD);
        return std::includes(disk.begin(), disk.end(), before.begin(), before.end());
    }

    std::vector<Change> StoreAndWatch(int& steps)
    {
        Watch watch;
        EXPECT_EQ(Store(NEW, &watch), qor::POLICY_STORED);
        steps = watch.steps;
        return watch.changes;
    }

    Disk Read() const;

    /// In a directory of its own.
    void Write(const Disk& disk);

    static std::size_t Kept(const Disk& disk)
    {
        return static_cast<std::size_t>(std::count_if(
            disk.begin(), disk.end(),
            [](const auto& file) { return file.first.compare(0, KEPT.size(), KEPT) == 0; }));
    }

    /// What is wrong with what a reader, or the next start, finds. The result is -1 after a crash.
    static std::string Fault(const Disk& disk, int result, bool isRecorded = true);

    /// Whatever has happened, the next policy is stored as ever, and what is kept is what was
    /// there.
    void ExpectThatTheNextIsStored(const std::string& what);

    /// Every disk that the first changes allow: those that a sync has ordered are there, and any of
    /// the others, or where the file system keeps the order of names, as those with a journal do,
    /// no name without those before it.
    std::set<Disk> DisksAfterPowerLoss(const std::vector<Change>& changes, std::size_t end,
                                       bool isOrdered) const;
    std::string FaultAfterPowerLoss(const std::vector<Change>& changes, int result,
                                    bool isRecorded = true) const;

    bool IsRecorded() const
    {
        return m_outcome.m_words.find("the user who has set it is not recorded") ==
               std::string::npos;
    }

    std::unique_ptr<TemporaryDirectory> m_pDirectory;
    Disk m_before;
    qord::TSStoreOutcome m_outcome;
};

std::size_t Syncs(const std::vector<Change>& changes);

} // namespace qortest

#endif
