// The policy file is whole at every moment, and a failure leaves no trace.
#include <csignal>
#include <set>
#include <string>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "qord/PolicyStore.h"

namespace
{

using qortest::ReadFile;
using qortest::WriteFile;

bool Store(const std::string& path, const std::string& text)
{
    std::string error;
    const bool result = qord::TCPolicyStore(path).Store(text, error);
    EXPECT_EQ(result, error.empty()) << error;
    return result;
}

unsigned int Mode(const std::string& path)
{
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

long CountEntries(const std::string& directory)
{
    return std::distance(boost::filesystem::directory_iterator(directory),
                         boost::filesystem::directory_iterator());
}

class PolicyStore : public testing::Test
{
protected:
    qortest::TemporaryDirectory m_directory;
    std::string m_path = m_directory.Path("policy.xml");
};

TEST_F(PolicyStore, NewFileIsReadableAndReplacedFileKeepsItsPermissions)
{
    const mode_t mask = umask(077);
    EXPECT_TRUE(Store(m_path, "first"));
    umask(mask);
    EXPECT_EQ(Mode(m_path), 0644u);
    chmod(m_path.c_str(), 0460);
    EXPECT_TRUE(Store(m_path, ""));
    EXPECT_EQ(ReadFile(m_path), "");
    EXPECT_EQ(Mode(m_path), 0460u);
    EXPECT_EQ(CountEntries(m_directory.Path()), 1);
}

TEST_F(PolicyStore, ReplacedFileKeepsItsOwner)
{
    if (geteuid() != 0)
    {
        GTEST_SKIP() << "only root gives files away";
    }
    WriteFile(m_path, "old");
    ASSERT_EQ(chown(m_path.c_str(), 12345, 23456), 0);
    EXPECT_TRUE(Store(m_path, "new"));
    struct stat status;
    ASSERT_EQ(stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 12345u);
    EXPECT_EQ(status.st_gid, 23456u);
}

TEST_F(PolicyStore, LinksStandForTheFileThatTheyLeadTo)
{
    const std::string real = m_directory.Path("real/policy");
    boost::filesystem::create_directory(m_directory.Path("real"));
    boost::filesystem::create_symlink("real/second", m_path);
    boost::filesystem::create_symlink("policy", m_directory.Path("real/second"));
    for (const char* text : {"created through the links", "replaced through the links"})
    {
        EXPECT_TRUE(Store(m_path, text));
        EXPECT_EQ(ReadFile(real), text);
        EXPECT_TRUE(boost::filesystem::is_symlink(m_path));
    }
    boost::filesystem::create_symlink("loop", m_directory.Path("loop"));
    EXPECT_FALSE(Store(m_directory.Path("loop"), "x"));
}

TEST_F(PolicyStore, LeftoversAndTrapsAtTheTemporaryNameAreNotFollowed)
{
    const std::string temporary = m_directory.Path(".policy.xml.new");
    const std::string victim = m_directory.Path("victim");
    WriteFile(victim, "untouched");
    boost::filesystem::create_symlink(victim, temporary);
    EXPECT_TRUE(Store(m_path, "one"));
    ASSERT_EQ(mkfifo(temporary.c_str(), 0600), 0);
    EXPECT_TRUE(Store(m_path, "two"));
    boost::filesystem::create_hard_link(victim, temporary);
    EXPECT_TRUE(Store(m_path, "three"));
    EXPECT_EQ(ReadFile(m_path), "three");
    EXPECT_EQ(ReadFile(victim), "untouched");
}

TEST_F(PolicyStore, FailuresLeaveTheOldFileAndNothingElse)
{
    WriteFile(m_path, "old");
    EXPECT_FALSE(Store(m_directory.Path("missing/policy.xml"), "x"));
    EXPECT_FALSE(Store(m_path + "/policy.xml", "x"));
    EXPECT_FALSE(Store(m_directory.Path(), "x"));

    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small = {4096, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_FALSE(Store(m_path, std::string(8192, 'x')));
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, previous);
    EXPECT_EQ(ReadFile(m_path), "old");
    EXPECT_EQ(CountEntries(m_directory.Path()), 1);

    boost::filesystem::create_directories(m_directory.Path(".policy.xml.new/occupied"));
    EXPECT_FALSE(Store(m_path, "x"));
    EXPECT_EQ(ReadFile(m_path), "old");
}

TEST_F(PolicyStore, ReadersAndCrashesSeeOneTextOrTheOther)
{
    const std::string texts[] = {std::string(300000, 'a'), std::string(200000, 'b')};
    ASSERT_TRUE(Store(m_path, texts[0]));
    for (int crash = 0; crash < 20; ++crash)
    {
        const pid_t writer = fork();
        ASSERT_GE(writer, 0);
        if (writer == 0)
        {
            const qord::TCPolicyStore store(m_path);
            std::string error;
            for (int index = 1; store.Store(texts[index % 2], error); ++index)
            {
            }
            _exit(1);
        }
        for (int read = 0; read < 5 * crash; ++read)
        {
            const std::string found = ReadFile(m_path);
            EXPECT_TRUE(found == texts[0] || found == texts[1]) << found.size();
        }
        kill(writer, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(writer, &status, 0), writer);
        EXPECT_TRUE(WIFSIGNALED(status));
        const std::string found = ReadFile(m_path);
        EXPECT_TRUE(found == texts[0] || found == texts[1]) << found.size();
    }
    EXPECT_TRUE(Store(m_path, "after the crash"));
    EXPECT_EQ(ReadFile(m_path), "after the crash");
    EXPECT_EQ(CountEntries(m_directory.Path()), 1);
}

TEST_F(PolicyStore, LatestReplacedPoliciesAreKept)
{
    const qord::TCPolicyStore store(m_path, {2, 0});
    std::string error;
    for (const char* text : {"1", "2", "3", "4"})
    {
        ASSERT_TRUE(store.Store(text, error)) << error;
    }
    WriteFile(m_directory.Path("policy_new.xml"), "not a copy");
    ASSERT_TRUE(store.Store("5", error)) << error;

    EXPECT_EQ(ReadFile(m_path), "5");
    std::multiset<std::string> copies;
    for (const auto& entry : boost::filesystem::directory_iterator(m_directory.Path()))
    {
        copies.insert(ReadFile(entry.path().string()));
    }
    EXPECT_EQ(copies, (std::multiset<std::string>{"3", "4", "5", "not a copy"}));
}

TEST_F(PolicyStore, FailureLeavesNoCopyAndTooLittleSpaceIsOne)
{
    std::string error;
    ASSERT_TRUE(Store(m_path, "old"));
    EXPECT_FALSE(qord::TCPolicyStore(m_path, {0, 1000000000}).Store("new", error));
    EXPECT_NE(error.find("1000000000 MiB"), std::string::npos) << error;
    EXPECT_EQ(ReadFile(m_path), "old");

    // In place of the temporary file, so that the copy succeeds and the replacement does not.
    boost::filesystem::create_directories(m_directory.Path(".policy.xml.new/in-the-way"));
    EXPECT_FALSE(qord::TCPolicyStore(m_path, {3, 0}).Store("new", error));
    EXPECT_EQ(ReadFile(m_path), "old");
    EXPECT_EQ(CountEntries(m_directory.Path()), 2);
}

TEST_F(PolicyStore, MissingDirectoryIsMade)
{
    const std::string path = m_directory.Path("a/b/policy.xml");
    EXPECT_FALSE(Store(path, "text"));
    qord::TCPolicyStore(path).MakeDirectory();
    EXPECT_TRUE(Store(path, "text"));
}

} // namespace
