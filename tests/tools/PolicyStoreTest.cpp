// The policy file, the copies and the record beside it.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "common/Text.h"
#include "qord/PolicyHistory.h"
#include "qord/PolicyStore.h"

namespace fs = boost::filesystem;
using namespace qortest;

class PolicyStore : public testing::Test
{
protected:
    bool Store(const std::string& path, const std::string& text, qord::TSStoreRules rules = {})
    {
        m_outcome = qord::TCPolicyStore(path, rules).Store(text);
        EXPECT_EQ(m_outcome.m_result == qor::POLICY_STORED, m_outcome.m_words.empty())
            << m_outcome.m_words;
        return m_outcome.m_result == qor::POLICY_STORED;
    }

    // What is wrong with the place; empty where nothing is.
    static std::string Open(const std::string& path, qord::TSStoreRules rules = {})
    try
    {
        std::string warning;
        const std::string error = qord::TCPolicyStore(path, rules).Open(warning);
        return error + (warning.empty() ? "" : "warning: " + warning);
    }
    catch (const std::runtime_error& error)
    {
        return std::string("for good: ") + error.what();
    }

    // What stands in the directory beside the lock.
    std::map<std::string, std::string> Files() const
    {
        std::map<std::string, std::string> files;
        for (const auto& entry : fs::directory_iterator(m_directory.Path()))
        {
            files[entry.path().filename().string()] = ReadFile(entry.path().string());
        }
        files.erase(".policy.xml.lock");
        return files;
    }

    static struct stat Status(const std::string& path)
    {
        struct stat status = {};
        stat(path.c_str(), &status);
        return status;
    }

    static mode_t Mode(const std::string& path)
    {
        return Status(path).st_mode & 07777;
    }

    // The name of what is written to take the policy's place.
    std::string Temporary() const
    {
        return m_directory.Path(".policy.xml.new-" + std::to_string(Status(m_path).st_ino));
    }

    TemporaryDirectory m_directory;
    std::string m_path = m_directory.Path("policy.xml");
    qord::TSStoreOutcome m_outcome;
    std::string m_warning;
};

TEST_F(PolicyStore, ReplacedFileKeepsPermissionsOwnerAndLinks)
{
    const std::string real = m_directory.Path("new/real/policy");
    EXPECT_FALSE(Store(real, "x"));
    fs::create_symlink("new/real/policy", m_path);
    EXPECT_EQ(Open(m_path), "");
    umask(077);
    EXPECT_TRUE(Store(m_path, "created through the link"));
    umask(022);
    EXPECT_EQ(Mode(real), 0644U);
    chmod(real.c_str(), 0460);
    const bool given = chown(real.c_str(), 12345, 23456) == 0; // for root only
    EXPECT_TRUE(Store(m_path, "replaced"));
    EXPECT_EQ(Mode(m_path), 0460U);
    EXPECT_EQ(Status(m_path).st_uid, given ? 12345 : geteuid());
    EXPECT_EQ(Status(m_path).st_gid, given ? 23456 : getegid());
    EXPECT_TRUE(fs::is_symlink(m_path));
}

TEST_F(PolicyStore, TrapsAreNotFollowedAndFilesOfOthersAreLeftAlone)
{
    const std::string victim = m_directory.Path("policy.xml.kept-007");
    WriteFile(victim, "untouched");
    WriteFile(m_path + ".kept-x", "");
    EXPECT_TRUE(Store(m_path, "one", {2, 0}));
    fs::create_symlink(victim, Temporary());
    EXPECT_TRUE(Store(m_path, "two", {2, 0}));
    ASSERT_EQ(mkfifo(Temporary().c_str(), 0600), 0);
    ASSERT_EQ(mkfifo(m_directory.Path(".policy.xml.old").c_str(), 0600), 0);
    EXPECT_TRUE(Store(m_path, "three", {2, 0}));
    fs::create_hard_link(victim, Temporary());
    EXPECT_TRUE(Store(m_path, "four", {2, 0}));
    std::map<std::string, std::string> files = {{"policy.xml", "four"},
                                                {"policy.xml.kept-2", "two"},
                                                {"policy.xml.kept-3", "three"},
                                                {"policy.xml.kept-007", "untouched"},
                                                {"policy.xml.kept-x", ""}};
    EXPECT_EQ(Files(), files);
    EXPECT_FALSE(Store(m_path, "x", {0, 1000000000})); // MiB that should be free
    EXPECT_TRUE(Store(m_path, "five"));                // keeps none, and leaves those that are
    files["policy.xml"] = "five";
    EXPECT_EQ(Files(), files);
    fs::create_directories(Temporary() + "/in-the-way");
    EXPECT_FALSE(Store(m_path, "x", {3, 0}));
    EXPECT_EQ(ReadFile(m_path), "five");

    fs::remove(m_path + ".kept-2");
    fs::create_symlink(victim, m_path + ".kept-2");
    std::string text;
    EXPECT_FALSE(qord::TCPolicyStore(m_path, {2, 0}).Read(2, text, 100, m_warning)) << text;
}

TEST_F(PolicyStore, NamesThatPeopleGaveAreNobodysAndNothingIsOverwritten)
{
    const std::string byDate = m_path + ".kept-20261125203606", last = m_path + ".kept-2147483647";
    WriteFile(byDate, "mine");
    fs::create_directories(m_path + ".kept-1/full");
    for (const char* text : {"one", "two", "three", "four"})
    {
        EXPECT_TRUE(Store(m_path, text, {2, 0}));
        EXPECT_EQ(Open(m_path, {2, 0}), "");
    }
    EXPECT_EQ(ReadFile(m_path + ".kept-3") + ReadFile(m_path + ".kept-4"), "twothree");
    EXPECT_EQ(ReadFile(byDate), "mine");

    WriteFile(last, "the last");
    m_outcome = qord::TCPolicyStore(m_path, {2, 0}).Store("five");
    EXPECT_EQ(m_outcome.m_result, qor::POLICY_STORED);
    EXPECT_NE(m_outcome.m_words.find("no number after policy.xml.kept-2147483647"),
              std::string::npos)
        << m_outcome.m_words;
    EXPECT_EQ(ReadFile(m_path) + ReadFile(last) + ReadFile(m_path + ".kept-4"),
              "fivethe last" + std::string());
    EXPECT_EQ(Files().size(), 4U);
}

TEST_F(PolicyStore, LongNamesLoseOnlyTheCopiesThatHaveNone)
{
    const std::string name(248, 'p'), path = m_directory.Path(name); // up to .kept-9
    for (int i = 0; i < 12; ++i)
    {
        m_outcome = qord::TCPolicyStore(path, {20, 0}).Store("policy " + std::to_string(i));
        EXPECT_EQ(m_outcome.m_result, qor::POLICY_STORED) << m_outcome.m_words;
        EXPECT_EQ(m_outcome.m_words.find("File name too long") != std::string::npos, i > 9) << i;
    }
    EXPECT_EQ(Open(path, {20, 0}), "");
    EXPECT_EQ(Files().size(), 11U); // with nine copies and the lock
}

TEST_F(PolicyStore, PlacesThatAreNoGoodAreFoundAtOnce)
{
    const auto has = [](const std::string& text, const char* part)
    { return text.find("for good") == 0 && text.find(part) != std::string::npos; };
    ASSERT_EQ(mkfifo(m_path.c_str(), 0600), 0);
    EXPECT_TRUE(has(Open(m_path), "not a regular file"));
    EXPECT_TRUE(has(Open(m_directory.Path()), "not a regular file"));
    EXPECT_TRUE(has(Open(m_path + "/x"), "Not a directory"));
    EXPECT_TRUE(has(Open("/proc/none/policy.xml"), "creating the directory"));
    EXPECT_EQ(std::distance(fs::directory_iterator(m_directory.Path()), {}), 1) << "is made";
    fs::remove(m_path);
    EXPECT_NE(Open(m_path, {0, 1000000000}).find("MiB are left"), std::string::npos);

    // Another process has it; one that has ended does not.
    EXPECT_EQ(Open(m_path), "");
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t process = fork();
    if (process == 0)
    {
        qord::TCPolicyStore store(m_path);
        store.Open(m_warning);
        if (write(ready[1], "", 1) == 1)
        {
            pause();
        }
        _exit(1);
    }
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    EXPECT_TRUE(has(Open(m_path), ("process " + std::to_string(process) + " (").c_str()));

    // The way there may be another one meanwhile: then a service finds itself in the other's place.
    const std::string link = m_directory.Path("link"), mine = m_directory.Path("mine");
    fs::create_directory(mine);
    fs::create_symlink("mine/policy.xml", link);
    qord::TCPolicyStore store(link);
    EXPECT_EQ(store.Open(m_warning), "");
    EXPECT_EQ(store.Store("one").m_result, qor::POLICY_STORED);
    fs::remove(link);
    fs::create_symlink("policy.xml", link);
    m_outcome = store.Store("two");
    EXPECT_EQ(m_outcome.m_result, qor::POLICY_NOT_STORED);
    EXPECT_NE(m_outcome.m_words.find("process " + std::to_string(process)), std::string::npos);
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
    EXPECT_EQ(store.Store("two").m_result, qor::POLICY_STORED);
    EXPECT_TRUE(has(Open(m_path), "keeps this file")); // this process, which has moved over
    fs::remove(m_directory.Path(".policy.xml.lock"));
    EXPECT_EQ(Open(m_path), "");
    EXPECT_EQ(store.Store("three").m_result, qor::POLICY_STORED);
    EXPECT_TRUE(has(Open(m_path), "keeps this file"));
}

TEST_F(PolicyStore, FileOfAnotherUserIsReplacedAndKept)
{
    WriteFile(m_path, "one");
    if (chmod(m_directory.Path().c_str(), 0777) != 0 || geteuid() != 0)
    {
        GTEST_SKIP() << "only root can put another user's file there";
    }
    const auto asNobody = [&] // which a thread may be, where the kernel is asked directly
    {
        ASSERT_EQ(syscall(SYS_setgroups, 0, nullptr), 0);
        ASSERT_EQ(syscall(SYS_setresgid, -1, 65534, -1), 0);
        ASSERT_EQ(syscall(SYS_setresuid, -1, 65534, -1), 0);
        prctl(PR_SET_DUMPABLE, 1); // the files in /proc are no longer this process's own else
        EXPECT_EQ(Open(m_path, {2, 0}), "");
        m_outcome = qord::TCPolicyStore(m_path, {2, 0}).Store("two");
    };
    std::thread(asNobody).join();
    EXPECT_EQ(m_outcome.m_result, qor::POLICY_STORED);
    EXPECT_EQ(m_outcome.m_words, "its group could not be kept; its owner could not be kept");
    EXPECT_EQ(ReadFile(m_path) + ReadFile(m_path + ".kept-1"), "twoone");
    EXPECT_EQ(Status(m_path + ".kept-1").st_uid, 0U);
    EXPECT_EQ(Mode(m_path), 0644U);
}

TEST_F(PolicyStore, RestrictedFilesAreForOwnerAndGroupOnly)
{
    const std::string recordFile = m_path + ".history";
    qord::TCPolicyStore open(m_path, {2, 0, false});
    const auto record = [](const struct stat&) { return "record"; };
    open.Store("one", record);
    open.Store("two", record);
    EXPECT_EQ(Mode(m_path) | Mode(m_path + ".kept-1") | Mode(recordFile), 0644U);
    chmod(m_path.c_str(), 0664);
    chmod(m_directory.Path().c_str(), 0751);
    qord::TCPolicyStore restricted(m_path, {2, 0, true});
    fs::remove(m_directory.Path(".policy.xml.lock")); // else the other one has it
    EXPECT_EQ(restricted.Open(m_warning) + m_warning, "");
    EXPECT_EQ(Mode(m_path), 0660U);
    EXPECT_EQ(Mode(m_path + ".kept-1"), 0640U);
    EXPECT_EQ(Mode(recordFile), 0640U);
    chmod(m_path.c_str(), 0644);
    EXPECT_EQ(restricted.Store("three", record).m_result, qor::POLICY_STORED);
    EXPECT_EQ(Mode(m_path), 0640U);
    EXPECT_EQ(Mode(recordFile), 0640U);
    fs::remove(m_path);
    restricted.Store("first");
    EXPECT_EQ(Mode(m_path), 0640U);
    EXPECT_EQ(Mode(m_directory.Path()), 0751U);
}

class PolicyHistory : public PolicyStore
{
protected:
    void Set(const std::string& text, const std::string& user)
    {
        qord::TSSender sender;
        sender.m_userName = user;
        const auto record = [&](const struct stat& file)
        {
            EXPECT_NE(ReadFile(m_path), text) << "recorded too late";
            return m_history.Remember(*m_store, file, tools::Sha256(text), sender);
        };
        m_outcome = m_store->Store(text, record);
        EXPECT_EQ(m_outcome.m_words, "");
    }

    // Another file with a text in a file's place, which was written then.
    static void PutInPlace(const std::string& path, const std::string& text, timespec written)
    {
        WriteFile(path + ".new", text); // as long as the other is there, it has another number
        const timespec times[] = {written, written};
        ASSERT_EQ(utimensat(AT_FDCWD, (path + ".new").c_str(), times, 0), 0);
        fs::rename(path + ".new", path);
    }

    // Who has set the policies, oldest first, for a service that starts now.
    std::string Setters()
    {
        m_history.Load(*m_store);
        std::string setters;
        for (const qord::TSStoredPolicy& policy : m_store->List())
        {
            const auto setter = m_history.Find(*m_store, policy).m_setter;
            setters += (setter ? setter->m_userName : "unknown") + " ";
        }
        return setters;
    }

    std::unique_ptr<qord::TCPolicyStore> m_store =
        std::make_unique<qord::TCPolicyStore>(m_path, qord::TSStoreRules{3, 0, false});
    qord::TCPolicyHistory m_history;
};

TEST_F(PolicyHistory, WhoSetAPolicyIsKnownAfterItsFilesWereCarriedElsewhere)
{
    Set("one", "alice");
    Set("two", "bob");
    Set("three", "carol");
    Set("three", "mallory"); // which was in force already
    EXPECT_EQ(Setters(), "alice bob carol ");
    for (const auto& [name, text] : Files())
    {
        const std::string path = m_directory.Path(name);
        PutInPlace(path, text, {Status(path).st_mtim.tv_sec, 0}); // as archives do
    }
    EXPECT_EQ(Setters(), "alice bob carol ");
    Set("four", "dave");
    EXPECT_EQ(Setters(), "alice bob carol dave ");

    // What somebody has put there is nobody's, though its text or its time is known.
    const std::string first = m_path + ".kept-1", second = m_path + ".kept-2";
    PutInPlace(first, "other", Status(first).st_mtim);
    PutInPlace(second, "two", {Status(second).st_mtim.tv_sec - 100, 0});
    EXPECT_EQ(Setters(), "unknown unknown carol dave ");

    // Nor is it lost where the time of a file is the year 2381, which nanoseconds do not reach.
    if (sizeof(void*) == 4)
    {
        return; // Boost's file functions, which the test uses, do not take such a time there
    }
    PutInPlace(m_path, "five", {13000000000, 7});
    Set("six", "erin");
    EXPECT_EQ(Setters(), "unknown carol unknown erin ");
    const auto seconds = std::to_string(Status(m_path + ".kept-4").st_mtim.tv_sec);
    EXPECT_NE(ReadFile(m_path + ".history").find(seconds), std::string::npos);
}
