// What the service is made of: events that become due, requests, their XML, and the policy file.
#include <csignal>
#include <cstring>
#include <future>
#include <sstream>

#include <boost/archive/binary_oarchive.hpp>
#include <boost/filesystem.hpp>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ChildProcess.h"
#include "MainContext.h"
#include "qord/Announcer.h"
#include "qord/PolicyRequest.h"
#include "qord/PolicyStore.h"
#include "qord/PolicyXml.h"
#include <qor/QORIpcSerializationUtil.h>

namespace
{

namespace fs = boost::filesystem;
using namespace qortest;

TEST(Announcer, DeliversAtMostOnceMoreAndItsEndWaitsForOneDelivery)
{
    std::mutex gate; // a delivery waits for it
    std::vector<int> begun;
    std::atomic<int> count(0);
    auto announcer = std::make_unique<qord::TCAnnouncer>(
        [&](int type)
        {
            begun.push_back(type);
            ++count;
            const std::lock_guard<std::mutex> wait(gate);
        });
    std::unique_lock<std::mutex> closed(gate);
    announcer->Announce(2);
    ASSERT_TRUE(WaitUntil([&] { return count == 1; }));
    for (const int type : {2, 4, 2, 4, 2, 4})
    {
        announcer->Announce(type);
    }
    closed.unlock();
    ASSERT_TRUE(WaitUntil([&] { return count == 3; }));
    closed.lock();
    announcer->Announce(7); // another one of the old would come before it
    ASSERT_TRUE(WaitUntil([&] { return count == 4; }));
    announcer->Announce(8); // is dropped
    auto end = std::async(std::launch::async, [&] { announcer.reset(); });
    EXPECT_EQ(end.wait_for(std::chrono::milliseconds(500)), std::future_status::timeout);
    closed.unlock();
    end.get();
    EXPECT_EQ(begun, (std::vector<int>{2, 2, 4, 7}));
}

qor::TByteArray Archive(const std::string& text)
{
    std::stringstream stream;
    boost::archive::binary_oarchive archive(stream);
    archive << text;
    qor::TByteArray bytes;
    qor::TCIpcSerializationUtil::ConvertData(stream, bytes);
    return bytes;
}

TEST(PolicyRequest, AnythingButOneWholeTextIsRefused)
{
    std::string policy, error;
    for (const std::string& text :
         {std::string(), std::string("a\0b\xff\n", 5), std::string(5 << 20, 'x')})
    {
        EXPECT_TRUE(qord::DecodePolicyRequest(Archive(text), policy, error)) << error;
        EXPECT_EQ(policy, text);
    }
    const auto isRefused = [&](const qor::TByteArray& request)
    {
        policy = "untouched";
        return !qord::DecodePolicyRequest(request, policy, error) && policy == "untouched";
    };
    const qor::TByteArray request = Archive("<policy/>");
    const std::size_t lengthAt = request.size() - strlen("<policy/>") - sizeof(std::size_t);
    qor::TByteArray changed = request;
    changed.push_back('x');
    EXPECT_TRUE(isRefused(changed));
    std::size_t foreign = 0;
    for (std::size_t at = 0; at < request.size(); ++at)
    {
        EXPECT_TRUE(isRefused({request.begin(), request.begin() + static_cast<long>(at)})) << at;
        changed = request;
        changed[at] = static_cast<unsigned char>(changed[at] ^ 0x80);
        foreign += at < lengthAt && isRefused(changed) ? 1 : 0;
    }
    EXPECT_GE(foreign, lengthAt - 2); // a byte of the archive's release may vary
    // Whoever allocates a declared length throws, or is ended by a sanitizer.
    for (const std::size_t length : {std::size_t(10), std::size_t(1) << 48, ~std::size_t(0)})
    {
        for (const std::size_t offset : {std::size_t(0), lengthAt})
        {
            changed = request;
            std::memcpy(changed.data() + offset, &length, sizeof length);
            EXPECT_TRUE(isRefused(changed)) << offset << ", " << length;
        }
    }
}

TEST(PolicyXml, OneWholeElementIsWellFormed)
{
    std::string error;
    for (const char* text :
         {"<a/>", "\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?><a/>",
          "<?xml version='1.0'?>\n<!-- c --><?p x?>\n<a b='1' c=\"2\">t&amp;&#65;</a>\n<!-- d "
          "-->\n",
          "<a><![CDATA[ <b> & ]]>\xC3\xA9</a>", "<!DOCTYPE a [<!ENTITY e 'x'>]><a>&e;</a>",
          "<!DOCTYPE a [<!ENTITY e SYSTEM 'file:///dev/zero'>]><a>&e;</a>"})
    {
        EXPECT_TRUE(qord::IsWellFormedPolicy(text, error)) << text << error;
    }
    for (const char* text : {"",
                             " \n",
                             "text",
                             "<!-- only -->",
                             "<a>",
                             "</a>",
                             "<a></b>",
                             "<a><b></a></b>",
                             "<a",
                             "<a b/>",
                             "<a b=1/>",
                             "<1/>",
                             "<a/><b/>",
                             "x<a/>",
                             "<a/>x",
                             " <?xml version='1.0'?><a/>",
                             "<a/><!DOCTYPE a>",
                             "<a b='1' b='2'/>",
                             "<a b='<'/>",
                             "<a>x & y</a>",
                             "<a>&nope;</a>",
                             "<a>&#x;</a>",
                             "<a>&amp</a>",
                             "<a>\xC3</a>",
                             "<a>\x01</a>"})
    {
        error.clear();
        EXPECT_FALSE(qord::IsWellFormedPolicy(text, error) || error.empty()) << text;
    }
    EXPECT_FALSE(qord::IsWellFormedPolicy(std::string("<a/>\0<b", 7), error));
    std::string deep, end, bomb = "<!DOCTYPE a [<!ENTITY e0 'xxxxxxxx'>";
    for (int i = 1; i < 200000; ++i)
    {
        deep += "<a>";
        end += "</a>";
        const std::string inner = "&e" + std::to_string(i - 1) + ";";
        bomb +=
            i < 40 ? "<!ENTITY e" + std::to_string(i) + " '" + inner + inner + inner + "'>" : "";
    }
    EXPECT_TRUE(qord::IsWellFormedPolicy(deep + end, error));
    EXPECT_FALSE(qord::IsWellFormedPolicy(deep, error));
    EXPECT_TRUE(qord::IsWellFormedPolicy(bomb + "]><a>&e39;</a>", error));
}

class PolicyStore : public testing::Test
{
protected:
    bool Store(const std::string& path, const std::string& text, qord::TSStoreRules rules = {})
    {
        std::string error;
        const bool ok = qord::TCPolicyStore(path, rules).Store(text, error);
        EXPECT_EQ(ok, error.empty()) << error;
        return ok;
    }

    // The contents of all files.
    std::multiset<std::string> Contents() const
    {
        std::multiset<std::string> contents;
        for (const auto& entry : fs::directory_iterator(m_directory.Path()))
        {
            contents.insert(ReadFile(entry.path().string()));
        }
        return contents;
    }

    TemporaryDirectory m_directory;
    std::string m_path = m_directory.Path("policy.xml");
    std::string m_temporary = m_directory.Path(".policy.xml.new");
};

TEST_F(PolicyStore, ReplacedFileKeepsPermissionsOwnerAndLinks)
{
    const std::string real = m_directory.Path("real/policy");
    EXPECT_FALSE(Store(real, "x"));
    qord::TCPolicyStore(real).MakeDirectory();
    fs::create_symlink("real/policy", m_path);
    umask(077);
    EXPECT_TRUE(Store(m_path, "created through the link"));
    umask(022);
    struct stat status;
    ASSERT_EQ(stat(real.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
    chmod(real.c_str(), 0460);
    const bool given = chown(real.c_str(), 12345, 23456) == 0; // for root only
    EXPECT_TRUE(Store(m_path, "replaced"));
    ASSERT_EQ(stat(m_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0460U);
    EXPECT_EQ(status.st_uid, given ? 12345 : geteuid());
    EXPECT_TRUE(fs::is_symlink(m_path));
    fs::create_symlink("loop", m_directory.Path("loop"));
    EXPECT_FALSE(Store(m_directory.Path("loop"), "x"));
}

TEST_F(PolicyStore, TrapsAreNotFollowedAndFailuresLeaveTheOldFileOnly)
{
    const std::string victim = m_directory.Path("victim");
    WriteFile(victim, "untouched");
    fs::create_symlink(victim, m_temporary);
    EXPECT_TRUE(Store(m_path, "one"));
    ASSERT_EQ(mkfifo(m_temporary.c_str(), 0600), 0);
    EXPECT_TRUE(Store(m_path, "two"));
    fs::create_hard_link(victim, m_temporary);
    EXPECT_TRUE(Store(m_path, "old"));
    EXPECT_FALSE(Store(m_path, "x", {0, 1000000000})); // MiB that should be free
    EXPECT_FALSE(Store(m_directory.Path(), "x"));
    EXPECT_EQ(Contents(), (std::multiset<std::string>{"old", "untouched"}));
    fs::create_directories(m_temporary + "/in-the-way"); // of the replacement, not of the copy
    EXPECT_FALSE(Store(m_path, "x", {3, 0}));
    EXPECT_EQ(Contents(), (std::multiset<std::string>{"", "old", "untouched"}));
}

TEST_F(PolicyStore, LatestReplacedPoliciesAreKept)
{
    WriteFile(m_directory.Path("policy_new.xml"), "not a copy");
    for (const char* text : {"1", "2", "3", "4", "5"})
    {
        ASSERT_TRUE(Store(m_path, text, {2, 0}));
    }
    EXPECT_EQ(Contents(), (std::multiset<std::string>{"3", "4", "5", "not a copy"}));
    EXPECT_EQ(ReadFile(m_path), "5");
}

TEST_F(PolicyStore, ReadersAndCrashesSeeOneTextOrTheOther)
{
    const std::string texts[] = {std::string(300000, 'a'), std::string(200000, 'b')};
    ASSERT_TRUE(Store(m_path, texts[0]));
    for (int crash = 0; crash < 20; ++crash)
    {
        const pid_t writer = fork();
        for (int i = 1; writer == 0; ++i)
        {
            std::string error;
            qord::TCPolicyStore(m_path).Store(texts[i % 2], error);
        }
        for (int read = 0; read <= 5 * crash; ++read)
        {
            const std::string found = ReadFile(m_path);
            EXPECT_TRUE(found == texts[0] || found == texts[1]) << found.size();
        }
        kill(writer, SIGKILL);
        ASSERT_EQ(waitpid(writer, nullptr, 0), writer);
    }
    EXPECT_TRUE(Store(m_path, "after the crash"));
    EXPECT_EQ(Contents(), std::multiset<std::string>{"after the crash"});
}

} // namespace
