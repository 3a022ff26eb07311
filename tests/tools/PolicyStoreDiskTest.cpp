// The policy store where something cannot be done, or needs not be.
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "PolicyStoreCrash.h"

using namespace qortest;

using PolicyStoreDisk = PolicyStoreCrash;

INSTANTIATE_TEST_SUITE_P(Keep, PolicyStoreDisk,
                         testing::Values(Kind{0, 0}, Kind{2, 0}, Kind{0, EINVAL}, Kind{2, EINVAL}));

// For whoever puts it there by hand, or sets it again because the answer was not sure.
TEST_P(PolicyStoreDisk, WhatIsInForceAlreadyIsOnlySynced)
{
    const std::string policy = m_pDirectory->Path(POLICY);
    WriteFile(policy, NEW);
    const Disk before = Read();
    for (int i = 0; i < 3; ++i)
    {
        Watch watch;
        EXPECT_EQ(Store(NEW, &watch), qor::POLICY_STORED);
        EXPECT_TRUE(m_outcome.m_wasInForce);
        EXPECT_EQ(watch.changes.size(), 2U);
        EXPECT_EQ(Syncs(watch.changes), 2U);
        EXPECT_NE(watch.changes[0].file, watch.changes[1].file);
    }
    EXPECT_TRUE(Read() == before);
    for (const std::string& other : {std::string("fore"), NEW + "!", std::string("fou")})
    {
        EXPECT_EQ(Store(other), qor::POLICY_STORED);
        EXPECT_FALSE(m_outcome.m_wasInForce) << other;
        EXPECT_EQ(ReadFile(policy), other);
    }
}

TEST_P(PolicyStoreDisk, WithoutAnotherNameForItTheOldOneIsNotKeptAndThatIsSaid)
{
    Watch watch;
    watch.refused[SYS_linkat] = EPERM;
    const bool isLost = GetParam().exchangeError != 0;
    EXPECT_EQ(Store(NEW, &watch), qor::POLICY_STORED);
    EXPECT_EQ(m_outcome.m_words.find("is not kept") != std::string::npos, isLost && Copies() > 0)
        << m_outcome.m_words;
    EXPECT_EQ(ReadFile(m_pDirectory->Path(POLICY)), NEW);
    EXPECT_EQ(Kept(Read()), Copies());

    // There is no way back either when the directory cannot be synced then.
    int unknown = 0;
    for (int step = 1; step <= watch.steps; ++step)
    {
        SetUp();
        Watch failing;
        failing.refused[SYS_linkat] = EPERM;
        failing.fails = step;
        failing.error = EIO;
        const int result = Store(NEW, &failing);
        unknown += result == qor::POLICY_STATE_UNKNOWN ? 1 : 0;
        const std::string text = ReadFile(m_pDirectory->Path(POLICY));
        EXPECT_TRUE(result == qor::POLICY_NOT_STORED ? text == OLD : text == NEW) << step;
    }
    EXPECT_EQ(unknown, isLost ? 1 : 0);
}

TEST_P(PolicyStoreDisk, AFullDiskTakesTheOldestCopiesAndNoMoreThanHelps)
{
    Watch small;
    small.fullUntilRemoved = 100;
    small.freeBytes = 1 << 20; // even all of them would not do
    EXPECT_EQ(Store(std::string(3 << 20, 'x'), &small), qor::POLICY_NOT_STORED);
    EXPECT_TRUE(HasAll(Read(), m_before));
    for (const unsigned int taken : {1U, 2U})
    {
        SetUp();
        Watch full;
        full.fullUntilRemoved = 2 * static_cast<int>(taken); // each time the new file goes, too
        EXPECT_EQ(Store(NEW, &full), Copies() > 0 ? qor::POLICY_STORED : qor::POLICY_NOT_STORED);
        EXPECT_EQ(Kept(Read()), Copies() > 0 ? 3 - taken : 0);
        EXPECT_EQ(Fault(Read(), m_outcome.m_result), "");
    }
}

TEST_P(PolicyStoreDisk, ACopyThatStaysOnlyGivesAWarning)
{
    Watch watch;
    watch.fixedName = "p.xml.kept-1";
    for (const char* text : {"four", "five", "six", "seven"})
    {
        EXPECT_EQ(Store(text, &watch), qor::POLICY_STORED);
        EXPECT_EQ(m_outcome.m_words.find("removing p.xml.kept-1") != std::string::npos,
                  Copies() > 0)
            << m_outcome.m_words;
    }
    EXPECT_LE(Kept(Read()), Copies());
    EXPECT_TRUE(Copies() == 0 || ReadFile(m_pDirectory->Path(KEPT + "6")) == "six");
}

constexpr char ACCESS[] = "system.posix_acl_access", DEFAULT[] = "system.posix_acl_default";

// As the kernel hands it out: of owner, user 12345, group, mask and others. The lists are the same
// where they allow the same.
static std::string AccessList(char group, char others)
{
    const auto entry = [](char kind, char rights, const std::string& whose = "\xff\xff\xff\xff") {
        return std::string{kind, 0, rights, 0} + whose;
    };
    return std::string{2, 0, 0, 0} + entry(1, 6) + entry(2, 6, {0x39, 0x30, 0, 0}) +
           entry(4, group) + entry(16, 6) + entry(32, others);
}

// Empty where it has none.
static std::string AccessListOf(const std::string& path)
{
    char bytes[256];
    const ssize_t size = getxattr(path.c_str(), ACCESS, bytes, sizeof bytes);
    return std::string(bytes, size < 0 ? 0 : static_cast<std::size_t>(size));
}

TEST_P(PolicyStoreDisk, WhoseRightsCannotBeKeptGivesNobodyMoreOfThem)
{
    const std::string policy = m_pDirectory->Path(POLICY);
    const auto modeAfter = [&](mode_t mode, Watch watch)
    {
        static int number = 0;
        chmod(policy.c_str(), mode);
        EXPECT_EQ(Store("policy " + std::to_string(++number), &watch), qor::POLICY_STORED);
        struct stat status = {};
        stat(policy.c_str(), &status);
        return status.st_mode & 07777;
    };
    Watch notGiven, noList;
    notGiven.refused[SYS_fchown] = EINVAL; // as for users that a namespace does not have
    noList.refused[SYS_fsetxattr] = EPERM;
    EXPECT_EQ(modeAfter(0664, {}), 0664U);
    const auto give = [&] { return chown(policy.c_str(), 12345, 23456) == 0; }; // for root only
    if (give())
    {
        EXPECT_EQ(modeAfter(0674, notGiven), 0644U);
        EXPECT_EQ(m_outcome.m_words, "its group could not be kept; its owner could not be kept");
        give();
    }
    const std::string list = AccessList(4, 0), usual = AccessList(6, 6);
    if (setxattr(policy.c_str(), ACCESS, list.data(), list.size(), 0) == 0) // else there are none
    {
        EXPECT_EQ(modeAfter(0660, {}), 0660U); // its group's part is the most that the list grants
        EXPECT_EQ(AccessListOf(policy), list);
        EXPECT_EQ(modeAfter(0660, notGiven), 0660U);
        const bool isOthers = m_outcome.m_words.find("its group") != std::string::npos;
        EXPECT_EQ(AccessListOf(policy), AccessList(isOthers ? 0 : 4, 0));
        EXPECT_EQ(modeAfter(0660, noList), 0600U); // the group had less than the mask
        EXPECT_EQ(m_outcome.m_words, "its access list could not be kept");

        // Nor does a list that new files get from the directory take the place of none.
        removexattr(policy.c_str(), ACCESS);
        const std::string directory = m_pDirectory->Path();
        ASSERT_EQ(setxattr(directory.c_str(), DEFAULT, usual.data(), usual.size(), 0), 0);
        EXPECT_EQ(modeAfter(0640, {}), 0640U);
        EXPECT_EQ(AccessListOf(policy), "");
    }
}

// One disk that was mounted read-only after an error, before anything was locked, and one that has
// no room for the lock.
TEST_P(PolicyStoreDisk, AServiceStartsOnADiskThatTakesNothing)
{
    for (const int error : {EROFS, ENOSPC, EDQUOT})
    {
        boost::filesystem::remove(m_pDirectory->Path(LOCK));
        qord::TCPolicyStore store(m_pDirectory->Path(POLICY), {Copies(), 0});
        std::string warning, text;
        Watch watch;
        watch.creationError = error;
        SetWatch(&watch);
        const std::string reason = store.Open(warning);
        const auto outcome = store.Store(NEW);
        SetWatch(nullptr);
        EXPECT_NE(reason.find(strerror(error)), std::string::npos) << reason;
        EXPECT_EQ(outcome.m_result, qor::POLICY_NOT_STORED);
        EXPECT_TRUE(store.Read(0, text, 100, warning));
        EXPECT_EQ(text, OLD);
        EXPECT_EQ(store.List().size(), 1 + Copies());
        EXPECT_EQ(store.Store(NEW).m_result, qor::POLICY_STORED) << "when the disk is well again";
        SetUp();
    }
}
